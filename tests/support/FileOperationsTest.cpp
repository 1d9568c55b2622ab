#include "support/FileOperations.h"

#include <climits>
#include <thread>
#include <tuple>

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
    EXPECT_EQ(readFile(path), written);
  }
}

TEST_F(FileOperationsTest, ClosesAgainAfterAnInterruptionOnly) {
  for (const int error : {EINTR, EIO}) {
    SystemCalls calls;
    calls.fail("close", error);
    const bool isClosed = closeRetrying(openPath(directory.path, O_RDONLY, 0));
    EXPECT_EQ(errorOf(isClosed), error == EINTR ? 0 : error);
    calls.fail("close", error);
    errno = ENOSPC;
    Descriptor(openPath(directory.path, O_RDONLY, 0)).close();
    EXPECT_EQ(errno, ENOSPC);
  }
}

TEST_F(FileOperationsTest, WritesAndSizesStreams) {
  FILE* file = fopen((directory / "file").c_str(), "w");
  EXPECT_TRUE(writeStreamFully(file, "abc", 3));
  std::ifstream stream(directory / "file");
  size_t size = 0;
  std::string rest;
  EXPECT_TRUE(stream.get() == 'a' && streamSize(stream, size) && size == 3);
  EXPECT_TRUE(stream >> rest && rest == "bc" && !(stream >> rest) && streamSize(stream, size));
  stream.close();
  EXPECT_EQ(errorOf(streamSize(stream, size)), EBADF);
  setvbuf(file = freopen("/dev/full", "w", file), nullptr, _IONBF, 0);
  EXPECT_FALSE(writeStreamFully(file, "abc", 3));
  fclose(file);
}

TEST_F(FileOperationsTest, CopiesBytesAndOnRequestTheMode) {
  const std::string content = std::string(1500, '\0') + std::string(1500, 'x');
  const std::string source = makeFile("file", content);
  EXPECT_TRUE(changeMode(source, 04751));
  EXPECT_TRUE(changeMode(makeFile("old", std::string(9000, 'y')), 0602));
  const std::tuple<std::string, bool, std::string, int, size_t, mode_t> cases[] = {
      {"new", false, "", 0, 3000, 0644},
      {"old", false, "", 0, 3000, 0602},
      {"old", true, "", 0, 3000, 04751},
      {"full", true, "write", ENOSPC, 700, 0644},
      {"interrupted", true, "read", EINTR, 700, 0644}};
  for (const auto& [name, copiesMode, failing, error, written, mode] : cases) {
    const std::string copy = directory / name;
    SystemCalls calls;
    calls.longestTransfer = 700;
    calls.fail(failing, error, 2);
    EXPECT_EQ(errorOf(copyFile(source, copy, copiesMode)), error) << name;
    EXPECT_TRUE(readFile(copy) == content.substr(0, written) && modeOf(copy) == mode) << name;
  }
  EXPECT_EQ(errorOf(copyFile(directory / "none", source, true)), ENOENT);
}

TEST_F(FileOperationsTest, ReadsAndSizesWhatHasASize) {
  make("empty huge file=abc link>file pipe|");
  std::filesystem::resize_file(directory / "huge", uintmax_t{1} << 31);
  const std::tuple<std::string, int, int, size_t> cases[] = {{"link", 0, 0, 3},
                                                             {"empty", ENODATA, 0, 0},
                                                             {"huge", EFBIG, 0, size_t{1} << 31},
                                                             {"none", ENOENT, ENOENT, 77},
                                                             {"", EISDIR, EISDIR, 77},
                                                             {"pipe", ESPIPE, ESPIPE, 77}};
  SystemCalls calls;
  calls.longestTransfer = 2;
  std::vector<char> content;
  for (const auto& [name, readError, sizeError, expected] : cases) {
    content.assign(9, 'u');
    EXPECT_EQ(errorOf(readWholeFile(directory / name, content)), readError) << name;
    EXPECT_EQ(std::string(content.begin(), content.end()), readError == 0 ? "abc" : "uuuuuuuuu");
    size_t size = 77;
    EXPECT_EQ(errorOf(fileSize(directory / name, size)), sizeError) << name;
    EXPECT_EQ(size, expected) << name;
  }
  calls.fail("read", EINTR);
  EXPECT_TRUE(readWholeFile(directory / "link", content));
  calls.longestTransfer = 0;
  EXPECT_EQ(errorOf(readWholeFile(directory / "link", content)), ENODATA) << "ends early";
}

TEST_F(FileOperationsTest, MakesDirectories) {
  make("file dangling>none");
  const std::tuple<std::string, bool, bool> cases[] = {
      {"file", false, true},     {"a", false, true},
      {"b/c", false, false},     {"b//[\xff/d/", true, true},
      {"dangling", true, false}, {"e/" + std::string(NAME_MAX + 1, 'x') + "/f", true, false}};
  for (const auto& [path, recursive, made] : cases) {
    EXPECT_EQ(makeDirectory(directory / path, 0710, recursive), made) << path;
  }
  EXPECT_EQ(modeOf(directory / "a"), 0710U);
  SystemCalls calls;
  calls.fail("mkdir", EROFS, 2);
  EXPECT_EQ(errorOf(makeDirectory(directory / "g/h/i", 0750, true)), EROFS) << "not that of \"i\"";
  EXPECT_EQ(tree(), "a/ b/[\xff/d/ dangling>none e/ file g/");
}

TEST_F(FileOperationsTest, TellsAndListsDirectoriesThatCanBeRead) {
  make("folder/file link>folder dangling>a");
  std::string told;
  for (const std::string name : {"link", "folder", "folder/file", "dangling", "none"}) {
    told += isDirectory(directory / name) ? 'd' : '-';
    told += isSymbolicLink(directory / name) ? 'l' : '-';
  }
  EXPECT_EQ(told, "dld----l--");
  std::vector<std::string> names{"earlier"};
  listDirectory(directory / "dangling", names);
  listDirectory(directory / "link", names);
  EXPECT_TRUE(names.size() == 4 && names[0] == "earlier") << "and file, dot and dot dot";
  SystemCalls calls;
  calls.fail("readdir", EIO);
  EXPECT_FALSE(isDirectory(directory / "link"));
}

TEST_F(FileOperationsTest, WaitsForAnExclusiveLockAndSharesAllOfTheFile) {
  const std::string path = makeFile("lock", "x");
  const Descriptor prober(openPath(path, O_RDWR, 0));
  Descriptor other(openPath(path, O_RDWR, 0));
  ASSERT_TRUE(setLock(other, F_WRLCK));
  std::thread holder([&] { usleep(50000), other.close(); });
  const int lock = lockFileShared(path);
  holder.join();
  EXPECT_FALSE(setLock(prober, F_WRLCK) || setLock(prober, F_WRLCK, 1 << 20));
  EXPECT_TRUE(setLock(prober, F_RDLCK) && unlockFile(lock));
  EXPECT_EQ(errorOf(lockFileShared(directory / "none") >= 0), ENOENT);
}

TEST_F(FileOperationsTest, TellsTheCapacityOfAFileSystem) {
  SystemCalls calls;
  struct statvfs& status = calls.fileSystem.emplace();
  status.f_frsize = 2;
  status.f_blocks = uint64_t{1} << 40;
  status.f_bfree = uint64_t{1} << 39;
  uint64_t total = 0;
  uint64_t free = 0;
  uint64_t unit = 0;
  EXPECT_EQ(errorOf(fileSystemSpace("", total, free, unit)), ENOENT);
  EXPECT_TRUE(fileSystemSpace("/", total, free, unit));
  EXPECT_TRUE(total >> 40 == 1 && free >> 39 == 1 && unit == 2);
}

}  // namespace
}  // namespace kst::support
