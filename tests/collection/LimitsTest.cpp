#include "collection/Limits.h"

#include <gmock/gmock.h>

#include "tests/support/FileSystemTest.h"

namespace collection {
namespace {

/// All limits, in the order of their keys below.
std::string textOf(const Limits& limits) {
  std::ostringstream text;
  text << limits.maxTotal << ' ' << limits.keepFree.bytes << ' ' << limits.keepFree.percent << "% "
       << limits.maxSnapshots << ' ' << limits.maxAge.count() << ' ' << limits.keepNewest << ' '
       << (limits.maxSource ? std::to_string(*limits.maxSource) : "all") << ' '
       << limits.collectionTime.count() << ' ' << limits.lockTime.count() << ' '
       << limits.coreDumpTime.count() << ' ' << limits.maxWaiting;
  return text.str();
}

constexpr const char* kDefaults = "2147483648 0 10% 32 604800 3 all 300 1 60 16";

class LimitsTest : public FileSystemTest {
 protected:
  /// The limits of the configuration file, and what is told of it.
  std::pair<std::string, std::string> read() {
    setenv("KESTRANE_COLLECTION_CONF", path.c_str(), 1);  // NOLINT(concurrency-mt-unsafe)
    std::ostringstream problems;
    const std::string text = textOf(readLimits(problems));
    unsetenv("KESTRANE_COLLECTION_CONF");  // NOLINT(concurrency-mt-unsafe)
    return {text, problems.str()};
  }

  std::string path = directory / "collection.conf";
};

TEST_F(LimitsTest, ReadsEveryKeyAndUnit) {
  const std::pair<const char*, const char*> cases[] = {
      {"# nothing\n\n", kDefaults},
      {"max_total=3K\n\tmax_total =5M # comment\nmax_snapshots = 1\nkeep_newest = 0\nmax_age = "
       "36525d",
       "5242880 0 10% 1 3155760000 0 all 300 1 60 16"},
      {"max_total = 17179869183G\nmax_source = 1\nkeep_free = 100%\nlock_time = 0",
       "18446744072635809792 0 100% 32 604800 3 1 300 0 60 16"},
      {"max_total = 18446744073709551615\nkeep_free = 7M\nmax_age = 1\ncollection_time = 9s",
       "18446744073709551615 7340032 0% 32 1 3 all 9 1 60 16"},
      {"max_total = 3K\nkeep_free = 7M\nkeep_free = 5%\ncore_dump_time = 2min\nmax_waiting = 0",
       "3072 0 5% 32 604800 3 all 300 1 120 0"},
      {"keep_free = 0\ncore_dump_time = 3h\ncore_dump_time = 4h",
       "2147483648 0 0% 32 604800 3 all 300 1 14400 16"}};
  for (const auto& [lines, expected] : cases) {
    makeFile("collection.conf", lines);
    EXPECT_EQ(read(), std::pair(std::string(expected), std::string())) << lines;
  }
}

TEST_F(LimitsTest, TellsOfEverythingElseAndKeepsTheDefault) {
  EXPECT_EQ(read(), std::pair(std::string(kDefaults), std::string())) << "without a file";
  const std::pair<std::string, const char*> cases[] = {
      {"max_total", "0 -1 +1 1k 1KK 1T 1.5G 0x10 17179869184G 5% 18446744073709551616"},
      {"keep_free", "101% -1% % 5K% 4294967297%"},
      {"max_snapshots", "0 1K"},
      {"max_age", "0 36526d 213503982334602d 1M"},
      {"keep_newest", "few"},
      {"max_source", "0"},
      {"collection_time", "0"},
      {"lock_time", "-1"},
      {"core_dump_time", "0"},
      {"max_waiting", "1s"},
      {"Max_total", "1"},
      {"", "1"}};
  std::string lines = "max_total = 1 K\nkeep_newest = \n";
  for (const auto& [key, values] : cases) {
    std::istringstream words(values);
    for (std::string value; words >> value;) {
      lines += key + " = " + value + "\n";
    }
  }
  makeFile("collection.conf", lines + "max\x1b_total = 1\r\nmax_total\nmax_total = a\u202e\n");
  const auto [limits, told] = read();
  EXPECT_EQ(limits, kDefaults);
  const std::string prefix = path + ": cannot be read: ";
  std::string expected;
  std::istringstream wrong(lines + "max?_total = 1\nmax_total\nmax_total = a?\n");
  for (std::string line; std::getline(wrong, line);) {
    expected += prefix + line + "\n";
  }
  EXPECT_EQ(told, expected);
  path = directory.path;
  EXPECT_EQ(read(), std::pair(std::string(kDefaults), path + ": Is a directory\n"));
}

}  // namespace
}  // namespace collection
