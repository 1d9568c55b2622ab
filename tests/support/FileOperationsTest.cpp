#include "support/FileOperations.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <thread>
#include <tuple>

#include "support/Descriptor.h"
#include "tests/fakes/SystemCalls.h"
#include "tests/support/FileSystemTest.h"

namespace kst::support {
namespace {

mode_t modeOf(const std::string& path) {
  return static_cast<mode_t>(std::filesystem::status(path).permissions());
}

using FileOperationsTest = FileSystemTest;

TEST_F(FileOperationsTest, WritesInAsManyPiecesAsItTakesAndStopsAtAnyFailure) {
  const std::tuple<int, int, std::string> cases[] = {
      {9, 0, "abcdefg"}, {1, ENOSPC, ""}, {2, EINTR, "abc"}, {3, EIO, "abcdef"}};
  for (const auto& [failing, error, written] : cases) {
    const std::string path = makeFile("file");
    const Descriptor file(openPath(path, O_WRONLY, 0));
    SystemCalls calls;
    calls.longestTransfer = 3;
    calls.fail("write", error, failing);
    EXPECT_EQ(errorOf(writeFully(file.get(), "abcdefg", 7)), error);
    EXPECT_EQ(contentOf(path), written);
  }
  EXPECT_TRUE(writeFully(-1, "", 0));
}

TEST_F(FileOperationsTest, ClosesAgainAfterAnInterruptionOnly) {
  for (const int error : {EINTR, EIO}) {
    SystemCalls calls;
    calls.fail("close", error);
    EXPECT_EQ(errorOf(closeRetrying(openPath(directory.path, O_RDONLY, 0))),
              error == EINTR ? 0 : error);
    calls.fail("close", error);
    Descriptor first(openPath(directory.path, O_RDONLY, 0));
    Descriptor second(openPath(directory.path, O_RDONLY, 0));
    errno = ENOSPC;
    first = std::move(second);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(fcntl(first.get(), F_GETFD), 0);
  }
}

TEST_F(FileOperationsTest, FlushesAStreamUnlessNothingCouldBeWritten) {
  FILE* file = fopen((directory / "file").c_str(), "w");
  EXPECT_TRUE(writeStreamFully(file, "abc", 3) && contentOf(directory / "file") == "abc");
  EXPECT_TRUE(fputc('d', file) == 'd' && writeStreamFully(file, "", 0));
  EXPECT_EQ(contentOf(directory / "file"), "abcd");
  file = freopen("/dev/full", "w", file);
  EXPECT_TRUE(writeStreamFully(file, "abc", 3)) << "only the flush fails";
  setvbuf(file, nullptr, _IONBF, 0);
  EXPECT_FALSE(writeStreamFully(file, "abc", 3));
  fclose(file);
}

TEST_F(FileOperationsTest, CopiesBytesAndOnRequestTheMode) {
  umask(040);
  for (const size_t size : {0UL, 1023UL, 1024UL, 5000UL}) {
    const std::string content = std::string(size / 2, '\0') + std::string(size - size / 2, 'x');
    const std::string source = makeFile("source", content);
    const std::string existing = makeFile("existing", std::string(9000, 'x'));
    const std::string created = directory / "created";
    EXPECT_TRUE(changeMode(source, 04751) && changeMode(existing, 0602));
    SystemCalls calls;
    calls.longestTransfer = 700;
    EXPECT_TRUE(copyFile(source, existing, false) && modeOf(existing) == 0602);
    EXPECT_EQ(contentOf(existing), content);
    EXPECT_TRUE(copyFile(source, created, false) && modeOf(created) == 0604);
    EXPECT_TRUE(copyFile(source, created, true) && modeOf(created) == 04751);
    EXPECT_TRUE(removeFile(created));
  }
}

TEST_F(FileOperationsTest, LeavesWhatAFailedCopyHasWritten) {
  const std::string source = makeFile("source", std::string(2500, 'x'));
  const std::string pipe = directory / "pipe";
  mkfifo(pipe.c_str(), 0644);
  EXPECT_TRUE(changeMode(source, 04600));
  const std::tuple<std::string, std::string, std::string, int, int, size_t> cases[] = {
      {source, makeFile("full"), "write", 2, ENOSPC, 1024},
      {source, makeFile("interrupted"), "read", 3, EINTR, 2048},
      {source, makeFile("modeless"), "fstat", 1, EIO, 2500},
      {source, makeFile("foreign"), "fchmod", 1, EPERM, 2500},
      {directory / "none", makeFile("kept", "old"), "", 0, ENOENT, 3},
      {directory.path, makeFile("emptied", "old"), "", 0, EISDIR, 0},
      {source, directory.path, "", 0, EISDIR, 0},
      {source, pipe, "", 0, ENXIO, 0},
  };
  for (const auto& [from, to, failing, number, error, written] : cases) {
    SystemCalls calls;
    calls.before = [failing = failing, left = number,
                    error = error](const std::string& function) mutable {
      return function == failing && --left == 0 ? error : function == "close" ? EDQUOT : 0;
    };
    EXPECT_EQ(errorOf(copyFile(from, to, true)), error) << to;
    EXPECT_NE(modeOf(to), 04600u) << to;
    EXPECT_EQ(to == pipe ? 0 : contentOf(to).size(), written) << to;
  }
}

TEST_F(FileOperationsTest, ReadsAndSizesWhatHasASize) {
  const std::string huge = makeFile("huge");
  std::filesystem::resize_file(huge, uintmax_t{1} << 31);
  mkfifo((directory / "pipe").c_str(), 0644);
  const std::tuple<std::string, int, int, size_t> cases[] = {
      {makeLink("link", makeFile("file", "a\r\n")), 0, 0, 3},
      {makeFile("empty"), ENODATA, 0, 0},
      {huge, EFBIG, 0, size_t{1} << 31},
      {"", ENOENT, ENOENT, 77},
      {directory.path, EISDIR, EISDIR, 77},
      {directory / "pipe", ESPIPE, ESPIPE, 77},
  };
  SystemCalls calls;
  calls.longestTransfer = 2;
  std::vector<char> content;
  for (const auto& [path, readError, sizeError, expected] : cases) {
    content.assign(9, 'u');
    EXPECT_EQ(errorOf(readWholeFile(path, content)), readError) << path;
    EXPECT_EQ(std::string(content.begin(), content.end()), readError == 0 ? "a\r\n" : "uuuuuuuuu");
    size_t size = 77;
    EXPECT_EQ(errorOf(fileSize(path, size)), sizeError) << path;
    EXPECT_EQ(size, expected) << path;
  }
  calls.fail("read", EINTR);
  EXPECT_TRUE(readWholeFile(directory / "link", content));
  calls.fail("read", EIO, 2);
  EXPECT_EQ(errorOf(readWholeFile(directory / "link", content)), EIO);
  calls.longestTransfer = 0;
  EXPECT_EQ(errorOf(readWholeFile(directory / "link", content)), ENODATA);
}

TEST_F(FileOperationsTest, SizesAStreamWithoutMovingIt) {
  std::ifstream stream(makeFile("file", "abc"));
  size_t size = 0;
  EXPECT_TRUE(stream.get() == 'a' && streamSize(stream, size) && size == 3);
  std::string rest;
  EXPECT_TRUE(stream >> rest && rest == "bc" && !(stream >> rest));
  size = 0;
  EXPECT_TRUE(streamSize(stream, size) && size == 3) << "behind a read that has failed";
  stream.close();
  EXPECT_EQ(errorOf(streamSize(stream, size)), EBADF);
  const std::string pipe = directory / "pipe";
  mkfifo(pipe.c_str(), 0644);
  const Descriptor writer(openPath(pipe, O_RDWR, 0));
  stream.open(pipe);
  EXPECT_EQ(errorOf(streamSize(stream, size)), ESPIPE);
}

TEST_F(FileOperationsTest, MakesDirectories) {
  makeFile("file");
  makeLink("dangling", "none");
  const std::tuple<std::string, bool, bool, std::string> cases[] = {
      {"file", false, true, "file"},
      {"a", false, true, "a"},
      {"b/c", false, false, "."},
      {"b//" + oddName + "/d/", true, true, "b/" + oddName + "/d"},
      {directory / "x/y", true, true, "x/y"},
      {"e/" + std::string(NAME_MAX + 1, 'x') + "/f", true, false, "e"},
      {"dangling", true, false, "."},
      {"", true, true, "."},
  };
  const std::filesystem::path start = std::filesystem::current_path();
  std::filesystem::current_path(directory.path);
  for (const auto& [path, recursive, made, there] : cases) {
    EXPECT_EQ(makeDirectory(path, 0750, recursive), made) << path;
    EXPECT_TRUE(pathExists(there)) << path;
  }
  SystemCalls calls;
  calls.fail("mkdir", EROFS, 2);
  EXPECT_EQ(errorOf(makeDirectory("g/h/i", 0750, true)), EROFS) << "and not that of \"i\"";
  std::filesystem::current_path(start);
  EXPECT_EQ(modeOf(directory / "x"), 0750u);
}

TEST_F(FileOperationsTest, TellsAndListsDirectoriesThatCanBeRead) {
  const std::string file = makeFile("folder/file");
  const std::string link = makeLink("link", "folder");
  EXPECT_TRUE(isDirectory(link) && !isDirectory(file) && !isDirectory(makeLink("dangling", "a")));
  EXPECT_TRUE(isSymbolicLink(link) && isSymbolicLink(directory / "dangling"));
  EXPECT_FALSE(isSymbolicLink(file) || isSymbolicLink(directory / "folder"));
  std::vector<std::string> names{"earlier"};
  listDirectory(directory / "dangling", names);
  listDirectory(link, names);
  EXPECT_TRUE(names.size() == 4 && names[0] == "earlier") << "and file, dot and dot dot";
  SystemCalls calls;
  calls.fail("readdir", EIO);
  EXPECT_FALSE(isDirectory(link));
  overridePermissions(false);
  EXPECT_TRUE(makeDirectory(directory / "unreadable", 0311, false));
  EXPECT_FALSE(isDirectory(directory / "unreadable"));
  EXPECT_TRUE(removeFile(directory / "unreadable"));
}

TEST_F(FileOperationsTest, WaitsForAnExclusiveLockAndSharesAllOfTheFile) {
  const std::string path = makeFile("lock", "x");
  const Descriptor prober(openPath(path, O_RDWR, 0));
  Descriptor other(openPath(path, O_RDWR, 0));
  const auto tryLock = [](const Descriptor& file, short type, off_t start) {
    struct flock lock {};  // one of the open file, to record locks as good as another process's
    lock.l_type = type;
    lock.l_start = start;
    lock.l_len = 1;
    return fcntl(file.get(), F_OFD_SETLK, &lock) == 0;
  };
  ASSERT_TRUE(tryLock(other, F_WRLCK, 0));
  std::thread holder([&] { usleep(50000), other.close(); });
  const int lock = lockFileShared(path);
  holder.join();
  EXPECT_FALSE(tryLock(prober, F_WRLCK, 0) || tryLock(prober, F_WRLCK, 1 << 20));
  EXPECT_TRUE(tryLock(prober, F_RDLCK, 0));
  EXPECT_TRUE(unlockFile(lock));
  EXPECT_FALSE(unlockFile(lock)) << "closed already";
  SystemCalls calls;
  calls.fail("fcntl", ENOLCK, 0);
  EXPECT_EQ(errorOf(unlockFile(openPath(path, O_RDONLY, 0))), ENOLCK);
  EXPECT_EQ(errorOf(lockFileShared(path) >= 0), ENOLCK);
  EXPECT_EQ(errorOf(lockFileShared(directory / "none") >= 0), ENOENT);
  EXPECT_FALSE(pathExists(directory / "none"));
}

TEST_F(FileOperationsTest, TellsTheCapacityOfAFileSystem) {
  SystemCalls calls;
  struct statvfs& space = calls.fileSystem.emplace();
  space.f_frsize = 2;
  space.f_blocks = uint64_t{1} << 40;
  space.f_bfree = uint64_t{1} << 39;
  calls.fail("statvfs", EIO);
  uint64_t values[] = {7, 8, 9};
  EXPECT_EQ(errorOf(fileSystemSpace("", values[0], values[1], values[2])), ENOENT);
  EXPECT_EQ(errorOf(fileSystemSpace("/", values[0], values[1], values[2])), EIO);
  EXPECT_TRUE(values[0] == 7 && values[1] == 8 && values[2] == 9);
  EXPECT_TRUE(fileSystemSpace("/", values[0], values[1], values[2]));
  EXPECT_TRUE(values[0] == space.f_blocks && values[1] == space.f_bfree && values[2] == 2);
}

TEST_F(FileOperationsTest, SplitsPaths) {
  EXPECT_EQ(lastPathComponent("/a/b//"), "b");
  EXPECT_EQ(parentDirectory("/a/b//"), "/a/");
  EXPECT_EQ(parentDirectory("/a/bb/b"), "/a/bb/");
  EXPECT_EQ(lastPathComponent("") + lastPathComponent("//") + parentDirectory("/"), "");
}

}  // namespace
}  // namespace kst::support
