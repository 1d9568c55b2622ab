#include "support/LogDirectory.h"

#include "support/FileOperations.h"
#include "tests/fakes/SystemCalls.h"
#include "tests/support/FileSystemTest.h"

namespace kst::support {
namespace {

using LogDirectoryTest = FileSystemTest;

TEST_F(LogDirectoryTest, FindsFreeNames) {
  make("bb bb-1 my.dir/x.txt my-1.dir/y.txt dangling>none half/log");
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {"bb", "bb-2", "bb-2"},
      {"my.dir/x.txt", "my.dir/x.txt-1", "my-1.dir/x.txt"},
      {"free\nline", "free\nline", "free\nline"},
      {makeFile("line\nfeed").substr(directory.path.size() + 1), "line\nfeed-1", ""},
      {"dangling", "dangling", "dangling"}};
  for (const auto& [name, unique, keepingSuffix] : cases) {
    EXPECT_EQ(uniquePath(directory / name), directory / unique);
    EXPECT_EQ(uniquePathKeepingSuffix(directory / name),
              keepingSuffix.empty() ? "" : directory / keepingSuffix);
  }
  EXPECT_EQ(moveToUniquePath(directory / "half", directory / "bb"), directory / "bb-2");
  EXPECT_EQ(moveToUniquePath(directory / "bb", directory / "file"), "");
  EXPECT_EQ(moveToUniquePath(directory / "bb-2", directory / "none/final"), "");
  EXPECT_EQ(tree("bb-2"), "log");
}

TEST_F(LogDirectoryTest, PrunesByTheTimeOfTheLastStatusChange) {
  make("file dangling>none folder/file folder/dangling>none");
  std::filesystem::last_write_time(directory / "file", {});
  struct stat status = {};
  ASSERT_EQ(stat((directory / "file").c_str(), &status), 0);
  const std::string before = tree();
  SystemCalls calls;
  for (const auto& [age, limit] : {std::pair(1000, uint64_t{1001}), {0, 1}, {-1000, 1000}}) {
    calls.now = status.st_ctime + age;
    EXPECT_TRUE(pruneDirectory(directory.path, limit));
    EXPECT_EQ(tree(), before) << age << ' ' << limit;
  }
  calls.now = status.st_ctime + 1000;
  EXPECT_TRUE(pruneDirectory(directory.path, 1000));
  make("folder/file link>folder");
  EXPECT_TRUE(pruneDirectory(directory / "link", 0));
  EXPECT_EQ(tree(), "dangling>none folder/ link>folder");
  EXPECT_TRUE(pruneDirectory(directory.path, 0) && pruneDirectory(directory / "none", 0));
  EXPECT_EQ(tree(), "");
}

TEST_F(LogDirectoryTest, CollectsNamesThatMatchAsAWhole) {
  make("bb-1 bb-x bb- bb-1-2 xbb-1 bb-\xff bb-link>bb-1");
  const std::tuple<std::string, bool, bool, std::set<std::string>> cases[] = {
      {"bb-[[:alnum:]]*", false, false, {"", "bb-", "bb-1", "bb-x"}},
      {"bb-[[:alnum:]]*", false, true, {"", "bb-", "bb-1", "bb-x"}},
      {"bb-[[:alnum:]]*", true, false, {"", "bb-", "bb-1", "bb-link", "bb-x"}},
      {"[^]*\xff", false, false, {"", "bb-\xff"}},
      {"\\.*", false, false, {""}}};
  std::vector<std::string> names;
  SystemCalls calls;
  for (const auto& [pattern, withLinks, typesAreUnknown, found] : cases) {
    calls.typesAreUnknown = typesAreUnknown;
    names = {""};
    EXPECT_EQ(collectMatchingNames(directory.path, std::regex(pattern), names, withLinks),
              found.size() > 1);
    EXPECT_EQ(std::set(names.begin(), names.end()), found) << pattern;
  }
  EXPECT_EQ(errorOf(collectMatchingNames(makeFile("file"), std::regex(".*"), names, true)),
            ENOTDIR);
}

TEST_F(LogDirectoryTest, FindsTheHighestNumberOfASeries) {
  make(
      "bb-2 bb-10 bb-x bb-3-77 xbb-78 bb-99>bb-2 none- big-4294967295 big-4294967296 hex-9 "
      "hex-0x10");
  const std::string longest = '[' + std::string(1021, 'b') + "]b";
  const std::pair<std::string, std::string> cases[] = {
      {"bb", "10"}, {"big", "4294967295"}, {"hex", "16"}, {"(none)?", "0"}, {longest, "10"}};
  for (const auto& [name, number] : cases) {
    const std::string path = directory / name;
    EXPECT_EQ(latestNumberedPath(path + "//"), path + '-' + number + '/');
  }
  for (const std::string& path : {directory / "missing", directory / "[z-a]",
                                  directory / ("[b" + longest.substr(1)), std::string("bb")}) {
    EXPECT_EQ(latestNumberedPath(path), "") << path;
  }
}

}  // namespace
}  // namespace kst::support
