#include "support/LogDirectory.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>
#include <climits>
#include <ctime>

#include "support/FileOperations.h"
#include "tests/support/FileSystemTest.h"

namespace kst::support {
namespace {

using testing::UnorderedElementsAre;
using LogDirectoryTest = FileSystemTest;

TEST_F(LogDirectoryTest, FindsFreeNames) {
  for (const char* name : {"bb", "bb-1", "log.tar.gz", "log-1.tar.gz", "log-3.tar.gz", "a b\xff.x",
                           "my.dir/x.txt", "my-1.dir/y.txt", "line\nfeed"}) {
    makeFile(name);
  }
  makeLink("dangling", "none");
  const struct {
    std::string name, unique, keepingSuffix;
  } cases[] = {{"bb", "bb-2", "bb-2"},
               {"log.tar.gz", "log.tar.gz-1", "log-2.tar.gz"},
               {"a b\xff.x", "a b\xff.x-1", "a-1 b\xff.x"},
               {"my.dir/x.txt", "my.dir/x.txt-1", "my-1.dir/x.txt"},
               {"free\nline", "free\nline", "free\nline"},
               {"dangling", "dangling", "dangling"}};
  for (const auto& test : cases) {
    EXPECT_EQ(uniquePath(directory / test.name), directory / test.unique);
    EXPECT_EQ(uniquePathKeepingSuffix(directory / test.name), directory / test.keepingSuffix);
  }
  EXPECT_EQ(uniquePathKeepingSuffix(directory / "line\nfeed"), "");
}

TEST_F(LogDirectoryTest, MovesADirectoryToAFreeName) {
  makeFile("half/log");
  makeFile("final");
  EXPECT_EQ(moveToUniquePath(directory / "half", directory / "final"), directory / "final-1");
  EXPECT_TRUE(pathExists(directory / "final-1/log"));
  EXPECT_EQ(moveToUniquePath(directory / "final", directory / "file"), "");
  EXPECT_EQ(moveToUniquePath(directory / "final-1", directory / "none/final"), "");
  EXPECT_THAT(entries(), UnorderedElementsAre("final", "final-1"));
}

TEST_F(LogDirectoryTest, PrunesEverythingButTheDirectory) {
  const TemporaryDirectory outside;
  std::ofstream(outside / "kept") << "kept";
  makeFile("folder/file");
  makeFile("line\nfeed \xff");
  makeLink("folder/link", outside.path);
  makeLink("link", outside.path);
  makeLink("dangling", "none");
  EXPECT_TRUE(pruneDirectory(directory.path, 0));
  EXPECT_THAT(entries(), UnorderedElementsAre());
  EXPECT_EQ(contentOf(outside / "kept"), "kept");
  EXPECT_TRUE(pruneDirectory(directory / "none", 0));
}

TEST_F(LogDirectoryTest, PrunesByTheTimeOfTheLastStatusChange) {
  const std::string file = makeFile("old-content");
  const timespec longAgo[2] = {{0, 0}, {0, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), longAgo, 0), 0);
  makeLink("dangling", "none");
  makeLink("link", "/bin/sh");  // as old as what it leads to, and no test can make an entry old
  struct stat shell {};
  ASSERT_EQ(stat("/bin/sh", &shell), 0);
  const auto age = static_cast<uint64_t>(difftime(std::time(nullptr), shell.st_ctime));
  EXPECT_TRUE(pruneDirectory(directory.path, UINT64_MAX));
  EXPECT_TRUE(pruneDirectory(directory.path, age + 3600));
  EXPECT_THAT(entries(), UnorderedElementsAre("dangling", "link", "old-content"));
  EXPECT_TRUE(pruneDirectory(directory.path, age));
  EXPECT_THAT(entries(), UnorderedElementsAre("dangling", "old-content"));
}

TEST_F(LogDirectoryTest, StopsAtWhatNoPathIsLongEnoughFor) {
  const std::filesystem::path start = std::filesystem::current_path();
  std::filesystem::current_path(directory.path);
  const std::string name(200, 'd');
  for (int level = 0; level <= PATH_MAX / 200; ++level) {
    std::filesystem::create_directory(name);
    std::filesystem::current_path(name);
  }
  std::filesystem::current_path(start);
  EXPECT_FALSE(pruneDirectory(directory.path, 0));
  EXPECT_FALSE(removeTree(directory.path));
  EXPECT_EQ(errno, ENAMETOOLONG);
  EXPECT_THAT(entries(), UnorderedElementsAre(name));
}

TEST_F(LogDirectoryTest, CollectsNamesThatMatchAsAWhole) {
  for (const char* name : {"bb-1", "bb-x", "bb-", "bb-1-2", "bb_1", "xbb-1", "bb-1\n", "bb-\xff"}) {
    makeFile(name);
  }
  makeLink("bb-link", "bb-1");
  const struct {
    const char* pattern;
    bool withLinks;
    std::vector<std::string> found;
  } cases[] = {
      {"bb-[[:alnum:]]*", false, {"bb-1", "bb-x", "bb-"}},
      {"bb-[[:alnum:]]*", true, {"bb-1", "bb-x", "bb-", "bb-link"}},
      {"[^]*[\n\xff]", false, {"bb-1\n", "bb-\xff"}},
      {"\\.*", false, {}},
  };
  for (const auto& [pattern, withLinks, found] : cases) {
    std::vector<std::string> names{"earlier"};
    EXPECT_EQ(collectMatchingNames(directory.path, std::regex(pattern), names, withLinks),
              !found.empty());
    names.erase(names.begin());
    EXPECT_THAT(names, testing::UnorderedElementsAreArray(found)) << pattern;
  }
}

TEST_F(LogDirectoryTest, ReportsADirectoryThatCannotBeOpenedToTheSystemLog) {
  openlog("test", LOG_PERROR, LOG_USER);
  const int mask = setlogmask(LOG_MASK(LOG_ERR));  // NOLINT(concurrency-mt-unsafe)
  std::vector<std::string> names;
  testing::internal::CaptureStderr();
  EXPECT_FALSE(collectMatchingNames(makeFile("%s"), std::regex(".*"), names, true));
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "test: " + directory / "%s" + " (Not a directory)\n");
  setlogmask(mask);  // NOLINT(concurrency-mt-unsafe)
  openlog(nullptr, 0, LOG_USER);
  closelog();
}

TEST_F(LogDirectoryTest, FindsTheHighestNumberOfASeries) {
  for (const char* name :
       {"bb-2", "bb-10", "bb-x", "bb-3-77", "xbb-78", "hex-0x10", "hex-12", "oct-010", "oct-7",
        "none-", "big-4294967295", "big-4294967296", "big-7", "axb-5", "my-bb-4", "-", "7-"}) {
    makeFile(name);
  }
  makeLink("bb-99", "bb-2");
  const std::pair<std::string, std::string> cases[] = {{"bb", "bb-10/"},
                                                       {"bb///", "bb-10/"},
                                                       {"hex", "hex-16/"},
                                                       {"oct", "oct-8/"},
                                                       {"none", "none-0/"},
                                                       {"big", "big-4294967295/"},
                                                       {"a.b", "a.b-5/"},
                                                       {"my-bb", "my-bb-4/"},
                                                       {"7", "7-7/"},
                                                       {"(none)?", "(none)?-0/"},
                                                       {"missing", ""},
                                                       {"[z-a]", ""},
                                                       {"(bb", ""},
                                                       {"bb{99999}", ""},
                                                       {std::string(1 << 20, 'x'), ""}};
  for (const auto& [name, found] : cases) {
    EXPECT_EQ(latestNumberedPath(directory / name), found.empty() ? "" : directory / found);
  }
  for (const char* path : {"", "/", "//", "bb"}) {
    EXPECT_EQ(latestNumberedPath(path), "") << path;
  }
}

}  // namespace
}  // namespace kst::support
