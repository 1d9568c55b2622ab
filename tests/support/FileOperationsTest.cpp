#include "support/FileOperations.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <thread>

#include "tests/support/FileSystemTest.h"

namespace kst::support {
namespace {

const std::string kOddName = "line\nfeed [a-z]*\\(\xff\xfe";

void setLimit(decltype(RLIMIT_FSIZE) resource, rlim_t value) {
  rlimit limit{};
  getrlimit(resource, &limit);
  limit.rlim_cur = std::min(value, limit.rlim_max);
  setrlimit(resource, &limit);
}

mode_t modeOf(const std::string& path) {
  return static_cast<mode_t>(std::filesystem::status(path).permissions());
}

using FileOperationsTest = FileSystemTest;

TEST_F(FileOperationsTest, FlushesAStreamUnlessNothingCouldBeWritten) {
  FILE* file = fopen((directory / "file").c_str(), "w");
  EXPECT_TRUE(writeStreamFully(file, "abc", 3));
  EXPECT_EQ(contentOf(directory / "file"), "abc");
  file = freopen("/dev/full", "w", file);
  EXPECT_TRUE(writeStreamFully(file, "abc", 3)) << "only the flush fails";
  setvbuf(file, nullptr, _IONBF, 0);
  EXPECT_FALSE(writeStreamFully(file, "abc", 3));
  fclose(file);
}

TEST_F(FileOperationsTest, CopiesBytesAndOnRequestTheMode) {
  const mode_t mask = umask(027);
  for (const size_t size : {0UL, 1023UL, 1024UL, 5000UL}) {
    SCOPED_TRACE(size);
    const std::string content(size, '\0');
    const std::string source = makeFile("source", content);
    const std::string existing = makeFile("existing", std::string(9000, 'x'));
    const std::string created = directory / "created";
    EXPECT_TRUE(changeMode(source, 04751) && changeMode(existing, 0602));
    EXPECT_TRUE(copyFile(source, existing, false));
    EXPECT_EQ(contentOf(existing), content);
    EXPECT_EQ(modeOf(existing), 0602u);
    EXPECT_TRUE(copyFile(source, created, false));
    EXPECT_EQ(modeOf(created), 0640u);
    EXPECT_TRUE(copyFile(source, created, true));
    EXPECT_EQ(modeOf(created), 04751u);
    EXPECT_TRUE(removeFile(created));
  }
  umask(mask);
}

TEST_F(FileOperationsTest, LeavesWhatAFailedCopyHasWritten) {
  const std::string source = makeFile("source", std::string(5000, 'x'));
  const std::string pipe = directory / "pipe";
  mkfifo(pipe.c_str(), 0644);
  const struct {
    std::string source, destination;
    int error;
    std::string written;
  } cases[] = {
      {source, makeFile("full", "old"), EFBIG, std::string(2500, 'x')},
      {directory / "none", makeFile("kept", "old"), ENOENT, "old"},
      {directory.path, makeFile("emptied", "old"), EISDIR, ""},
      {source, directory.path, EISDIR, ""},
      {source, pipe, ENXIO, ""},
      {source, directory / std::string(PATH_MAX, 'x'), ENAMETOOLONG, ""},
  };
  std::signal(SIGXFSZ, SIG_IGN);
  setLimit(RLIMIT_FSIZE, 2500);  // a file takes no more, as on a full disk
  for (const auto& test : cases) {
    EXPECT_FALSE(copyFile(test.source, test.destination, true));
    EXPECT_EQ(errno, test.error);
    EXPECT_EQ(test.destination == pipe ? "" : contentOf(test.destination), test.written);
  }
  setLimit(RLIMIT_FSIZE, RLIM_INFINITY);
}

TEST_F(FileOperationsTest, ReadsAndSizesWhatHasASize) {
  const std::string huge = makeFile("huge");
  std::filesystem::resize_file(huge, size_t{1} << 31);
  mkfifo((directory / "pipe").c_str(), 0644);
  const struct {
    std::string path;
    bool read, sized;
    size_t size;
  } cases[] = {
      {makeLink("link", makeFile("file", "a\r\n")), true, true, 3},
      {makeFile("empty"), false, true, 0},
      {huge, false, true, size_t{1} << 31},
      {directory / "none", false, false, 77},
      {directory.path, false, false, 77},
      {directory / "pipe", false, false, 77},
      {"/proc/self/status", false, false, 77},
  };
  for (const auto& test : cases) {
    std::vector<char> content(9, 'u');
    size_t size = 77;
    EXPECT_EQ(readWholeFile(test.path, content), test.read) << test.path;
    EXPECT_EQ(std::string(content.begin(), content.end()), test.read ? "a\r\n" : "uuuuuuuuu");
    EXPECT_EQ(fileSize(test.path, size), test.sized) << test.path;
    EXPECT_EQ(size, test.size) << test.path;
  }
}

TEST_F(FileOperationsTest, SizesAStreamWithoutMovingIt) {
  std::ifstream stream(makeFile("file", "abc"));
  size_t size = 0;
  EXPECT_EQ(stream.get(), 'a');
  EXPECT_TRUE(streamSize(stream, size) && size == 3);
  std::string rest;
  EXPECT_TRUE(stream >> rest && rest == "bc" && !(stream >> rest));
  size = 0;
  EXPECT_TRUE(streamSize(stream, size) && size == 3) << "behind a read that has failed";
  stream.close();
  EXPECT_FALSE(streamSize(stream, size));
}

TEST_F(FileOperationsTest, MakesDirectories) {
  makeFile("file");
  makeLink("dangling", "none");
  const struct {
    std::string path;
    bool recursive, made;
    std::string there;
  } cases[] = {
      {"file", false, true, "file"},
      {"a", false, true, "a"},
      {"b/c", false, false, "."},
      {"b//" + kOddName + "/d/", true, true, "b/" + kOddName + "/d"},
      {directory / "x/y", true, true, "x/y"},
      {"file/a", true, false, "."},
      {"e/" + std::string(NAME_MAX + 1, 'x') + "/f", true, false, "e"},
      {"dangling", true, false, "."},
      {"", true, true, "."},
  };
  const std::filesystem::path start = std::filesystem::current_path();
  std::filesystem::current_path(directory.path);
  for (const auto& test : cases) {
    EXPECT_EQ(makeDirectory(test.path, 0750, test.recursive), test.made) << test.path;
    EXPECT_TRUE(pathExists(test.there)) << test.path;
  }
  std::filesystem::current_path(start);
  EXPECT_EQ(modeOf(directory / "x"), 0750u);
}

TEST_F(FileOperationsTest, RemovesATreeButNothingThatLinksLeadTo) {
  const std::string outside = makeFile("outside/kept", "kept");
  makeFile("tree/a/" + kOddName + "/" + kOddName);
  for (const char* name : {"tree/a/link", "tree/link", "link", "slashed"}) {
    makeLink(name, directory / "outside");
  }
  makeLink("tree/file", outside);
  makeLink("tree/a/up", "..");
  makeLink("tree/loop", "loop");
  makeLink("dangling", "none");
  mkfifo((directory / "tree/pipe").c_str(), 0644);
  for (const std::string name : {"tree/", "none", "link", "slashed//", "dangling"}) {
    EXPECT_TRUE(removeTree(directory / name)) << name;
  }
  std::vector<std::string> names{"earlier"};
  listDirectory(directory.path, names);
  EXPECT_THAT(names, testing::UnorderedElementsAre("earlier", ".", "..", "outside", "dangling"));
  EXPECT_EQ(contentOf(outside), "kept");
}

TEST_F(FileOperationsTest, RemovesADeepTreeWithOneDescriptor) {
  std::string path = directory / "tree";
  for (; path.size() < PATH_MAX; path += "/a-folder") {
    ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
  }
  setLimit(RLIMIT_NOFILE, static_cast<rlim_t>(openDescriptors()));
  EXPECT_TRUE(removeTree(directory / "tree"));
  setLimit(RLIMIT_NOFILE, RLIM_INFINITY);
  EXPECT_FALSE(pathExists(directory / "tree"));
}

TEST_F(FileOperationsTest, RemovesFoldersWithoutPermissionOnlyIfTheyAreEmpty) {
  if (geteuid() == 0) {
    GTEST_SKIP() << "needs an ordinary user: root may read and write everywhere";
  }
  const std::string folder = directory / "tree/folder";
  makeFile("tree/folder/file");
  for (const mode_t mode : {0U, 0555U}) {
    EXPECT_TRUE(changeMode(folder, mode));
    EXPECT_FALSE(removeTree(directory / "tree"));
    EXPECT_TRUE(changeMode(folder, 0755) && pathExists(folder + "/file"));
  }
  EXPECT_TRUE(removeFile(folder + "/file") && changeMode(folder, 0) && !isDirectory(folder));
  EXPECT_TRUE(removeTree(directory / "tree") && !pathExists(directory / "tree"));
}

TEST_F(FileOperationsTest, RemovesWhileEntriesVanish) {
  for (int number = 0; number < 400; ++number) {
    makeFile("tree/" + std::to_string(number % 20) + "/" + std::to_string(number));
  }
  const auto removeUntilGone = [this] {
    while (!removeTree(directory / "tree")) {
    }
  };
  std::thread other(removeUntilGone);
  removeUntilGone();
  other.join();
  EXPECT_FALSE(pathExists(directory / "tree"));
}

TEST_F(FileOperationsTest, WaitsForAnExclusiveLock) {
  const std::string path = makeFile("lock");
  const int file = openPath(path, O_RDWR, 0);
  struct flock exclusive {};
  exclusive.l_type = F_WRLCK;
  ASSERT_EQ(fcntl(file, F_OFD_SETLK, &exclusive),
            0);  // to record locks as good as another process's
  std::atomic<bool> locked = false;
  std::thread holder([&] {
    while (!locked && contentOf("/proc/locks").find("->") == std::string::npos) {
      std::this_thread::yield();  // until somebody waits for a lock
    }
    EXPECT_TRUE(writeFully(file, "done", 4) && closeRetrying(file));
  });
  const int lock = lockFileShared(path);
  locked = true;
  EXPECT_EQ(contentOf(path), "done");
  EXPECT_TRUE(unlockFile(lock));
  EXPECT_FALSE(unlockFile(lock)) << "closed already";
  holder.join();
}

TEST_F(FileOperationsTest, SplitsPaths) {
  EXPECT_EQ(lastPathComponent("/a/b//"), "b");
  EXPECT_EQ(parentDirectory("/a/b//"), "/a/");
  EXPECT_EQ(parentDirectory("/a/bb/b"), "/a/bb/");
  for (const char* path : {"", "/", "//"}) {
    EXPECT_EQ(lastPathComponent(path) + parentDirectory(path), "") << path;
  }
}

}  // namespace
}  // namespace kst::support
