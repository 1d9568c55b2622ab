#include "support/LogDirectory.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>
#include <ctime>
#include <thread>

#include "support/FileOperations.h"
#include "tests/fakes/SystemCalls.h"
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
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {"bb", "bb-2", "bb-2"},
      {"log.tar.gz", "log.tar.gz-1", "log-2.tar.gz"},
      {"a b\xff.x", "a b\xff.x-1", "a-1 b\xff.x"},
      {"my.dir/x.txt", "my.dir/x.txt-1", "my-1.dir/x.txt"},
      {"free\nline", "free\nline", "free\nline"},
      {"dangling", "dangling", "dangling"}};
  for (const auto& [name, unique, keepingSuffix] : cases) {
    EXPECT_EQ(uniquePath(directory / name), directory / unique);
    EXPECT_EQ(uniquePathKeepingSuffix(directory / name), directory / keepingSuffix);
  }
  EXPECT_EQ(uniquePathKeepingSuffix(directory / "line\nfeed"), "");
}

TEST_F(LogDirectoryTest, MovesADirectoryToAFreeName) {
  makeFile("half/log");
  makeFile("final");
  EXPECT_EQ(moveToUniquePath(directory / "half", directory / "final"), directory / "final-1");
  EXPECT_EQ(moveToUniquePath(directory / "final", directory / "file"), "");
  EXPECT_EQ(moveToUniquePath(directory / "final-1", directory / "none/final"), "");
  EXPECT_THAT(entries(), UnorderedElementsAre("final", "final-1"));
  EXPECT_THAT(entries("final-1"), UnorderedElementsAre("log"));
}

TEST_F(LogDirectoryTest, PrunesByTheTimeOfTheLastStatusChange) {
  const std::string file = makeFile("file");
  std::filesystem::last_write_time(file, {});
  makeLink("dangling", "none");
  makeLink("folder/dangling", makeFile("folder/file") + "-none");
  struct stat status {};
  ASSERT_EQ(stat(file.c_str(), &status), 0);
  SystemCalls calls;
  for (const auto& [age, limit] : {std::pair(1000, uint64_t{1001}), std::pair(1000, UINT64_MAX),
                                   std::pair(0, uint64_t{1}), std::pair(-1000, uint64_t{1000})}) {
    calls.now = status.st_ctime + age;
    EXPECT_TRUE(pruneDirectory(directory.path, limit) && pathExists(file)) << age << ' ' << limit;
  }
  calls.now = status.st_ctime + 1000;
  EXPECT_TRUE(pruneDirectory(directory.path, 1000));
  EXPECT_THAT(entries(), UnorderedElementsAre("dangling"));
  makeFile("folder/file");
  EXPECT_TRUE(pruneDirectory(makeLink("link", "folder"), 0) && entries("folder").empty());
  EXPECT_TRUE(pruneDirectory(directory.path, 0) && pruneDirectory(directory / "none", 0));
  EXPECT_THAT(entries(), UnorderedElementsAre());
}

TEST_F(LogDirectoryTest, LooksAtEachAgeRightBeforeTheRemoval) {
  const std::string paths[] = {makeFile("a"), makeFile("b")};
  const std::string& second = entries()[0] == "a" ? paths[1] : paths[0];
  SystemCalls calls;
  calls.now = std::time(nullptr) + 1001;
  calls.before = [&](const std::string& function) {
    if (function == "unlinkat" && !isSymbolicLink(second) && remove(second.c_str()) == 0) {
      EXPECT_EQ(symlink("none", second.c_str()), 0);
    }
    return 0;
  };
  EXPECT_TRUE(pruneDirectory(directory.path, 1000) && isSymbolicLink(second));
  EXPECT_EQ(entries().size(), 1U);
  calls.fail("unlinkat", ENOENT, 0);
  EXPECT_EQ(errorOf(pruneDirectory(directory.path, 0)), ENOENT) << "vanished after its turn came";
}

TEST_F(LogDirectoryTest, CollectsNamesThatMatchAsAWhole) {
  for (const char* name : {"bb-1", "bb-x", "bb-", "bb-1-2", "bb_1", "xbb-1", "bb-1\n", "bb-\xff"}) {
    makeFile(name);
  }
  makeLink("bb-link", "bb-1");
  const std::tuple<std::string, bool, std::vector<std::string>> cases[] = {
      {"bb-[[:alnum:]]*", false, {"bb-1", "bb-x", "bb-"}},
      {"bb-[[:alnum:]]*", true, {"bb-1", "bb-x", "bb-", "bb-link"}},
      {"[^]*[\n\xff]", false, {"bb-1\n", "bb-\xff"}},
      {"\\.*", false, {}},
  };
  for (const bool typesAreUnknown : {false, true}) {
    SystemCalls calls;
    calls.typesAreUnknown = typesAreUnknown;
    for (const auto& [pattern, withLinks, found] : cases) {
      std::vector<std::string> names{"earlier"};
      EXPECT_EQ(collectMatchingNames(directory.path, std::regex(pattern), names, withLinks),
                !found.empty());
      names.erase(names.begin());
      EXPECT_THAT(names, testing::UnorderedElementsAreArray(found)) << pattern;
    }
  }
}

TEST_F(LogDirectoryTest, ReportsADirectoryThatCannotBeOpenedToTheSystemLog) {
  openlog("test", LOG_PERROR, LOG_USER);
  setlogmask(LOG_MASK(LOG_ERR));  // NOLINT(concurrency-mt-unsafe)
  std::vector<std::string> names;
  testing::internal::CaptureStderr();
  EXPECT_EQ(errorOf(collectMatchingNames(makeFile("%s"), std::regex(".*"), names, true)), ENOTDIR);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "test: " + directory / "%s" + " (Not a directory)\n");
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
  const std::string longest = '[' + std::string(1021, 'b') + "]b";
  const std::pair<std::string, std::string> cases[] = {
      {"bb", "10"}, {"hex", "16"},  {"oct", "8"}, {"none", "0"},    {"big", "4294967295"},
      {"a.b", "5"}, {"my-bb", "4"}, {"7", "7"},   {"(none)?", "0"}, {longest, "10"}};
  for (const auto& [name, number] : cases) {
    const std::string path = directory / name;
    EXPECT_EQ(latestNumberedPath(path + "//"), path + '-' + number + '/');
  }
  const std::string without[] = {"",
                                 "/",
                                 "//",
                                 "bb",
                                 directory / "missing",
                                 directory / "[z-a]",
                                 directory / "(bb",
                                 directory / "[b" + longest.substr(1)};
  for (const std::string& path : without) {
    EXPECT_EQ(latestNumberedPath(path), "") << path;
  }
}

TEST_F(LogDirectoryTest, FindsNumbersInSeveralThreads) {
  makeFile("bb-1");
  const auto find = [this] { EXPECT_NE(latestNumberedPath(directory / "bb"), ""); };
  const std::jthread other(find);
  find();
}

}  // namespace
}  // namespace kst::support
