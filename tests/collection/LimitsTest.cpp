#include "collection/Limits.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/FileSystemTest.h"

namespace collection {
namespace {

using Values = std::map<std::string, std::uint64_t>;

constexpr std::uint64_t kAll = UINT64_MAX;

Values valuesOf(const Limits& limits) {
  const auto seconds = [](std::chrono::seconds time) { return std::uint64_t(time.count()); };
  return {{"max_total", limits.maxTotal},
          {"keep_free", limits.keepFree.bytes},
          {"percent", limits.keepFree.percent},
          {"max_snapshots", limits.maxSnapshots},
          {"max_age", seconds(limits.maxAge)},
          {"keep_newest", limits.keepNewest},
          {"max_source", limits.maxSource.value_or(kAll)},
          {"collection_time", seconds(limits.collectionTime)},
          {"lock_time", seconds(limits.lockTime)},
          {"core_dump_time", seconds(limits.coreDumpTime)},
          {"max_waiting", limits.maxWaiting}};
}

class LimitsTest : public FileSystemTest {
 protected:
  /// The limits of the configuration file, and what is told of it.
  std::pair<Values, std::string> read() {
    setenv("KESTRANE_COLLECTION_CONF", path.c_str(), 1);  // NOLINT(concurrency-mt-unsafe)
    std::ostringstream problems;
    const Values values = valuesOf(readLimits(problems));
    unsetenv("KESTRANE_COLLECTION_CONF");  // NOLINT(concurrency-mt-unsafe)
    return {values, problems.str()};
  }

  std::string path = directory / "collection.conf";
  const Values defaults = {
      {"max_total", 2'147'483'648}, {"keep_free", 0},         {"percent", 10},
      {"max_snapshots", 32},        {"max_age", 7 * 86'400},  {"keep_newest", 3},
      {"max_source", kAll},         {"collection_time", 300}, {"lock_time", 1},
      {"core_dump_time", 60},       {"max_waiting", 16}};
};

TEST_F(LimitsTest, ReadsEveryKeyAndUnit) {
  const std::pair<const char*, Values> cases[] = {
      {"# nothing\n\n", {}},
      {"max_total=3K", {{"max_total", 3072}}},
      {"\tmax_total =5M # comment", {{"max_total", 5'242'880}}},
      {"max_total = 17179869183G\nmax_source = 1",
       {{"max_total", 17'179'869'183 << 30}, {"max_source", 1}}},
      {"max_total = 18446744073709551615", {{"max_total", kAll}}},
      {"keep_free = 100%", {{"percent", 100}}},
      {"keep_free = 7M", {{"keep_free", 7 << 20}, {"percent", 0}}},
      {"keep_free = 7M\nkeep_free = 5%", {{"percent", 5}}},
      {"keep_free = 0", {{"percent", 0}}},
      {"max_snapshots = 1\nkeep_newest = 0", {{"max_snapshots", 1}, {"keep_newest", 0}}},
      {"max_age = 36525d\nlock_time = 0", {{"max_age", 3'155'760'000}, {"lock_time", 0}}},
      {"max_age = 1\ncollection_time = 9s", {{"max_age", 1}, {"collection_time", 9}}},
      {"core_dump_time = 2min\nmax_waiting = 0", {{"core_dump_time", 120}, {"max_waiting", 0}}},
      {"core_dump_time = 3h\ncore_dump_time = 4h", {{"core_dump_time", 14'400}}},
  };
  for (const auto& [lines, changed] : cases) {
    makeFile("collection.conf", lines);
    Values expected = changed;
    expected.insert(defaults.begin(), defaults.end());
    EXPECT_EQ(read(), std::pair(expected, std::string())) << lines;
  }
}

TEST_F(LimitsTest, TellsOfEveryOtherLineAndKeepsTheDefault) {
  const std::pair<const char*, std::vector<const char*>> cases[] = {
      {"max_total",
       {"0", "-1", "+1", "1 K", "1k", "1KK", "1T", "1.5G", "0x10", "17179869184G", "5%",
        "18446744073709551616"}},
      {"keep_free", {"101%", "-1%", "%", "5 %", "5K%", "4294967297%"}},
      {"max_snapshots", {"0", "1K"}},
      {"max_age", {"0", "36526d", "213503982334602d", "1M"}},
      {"keep_newest", {"few", ""}},
      {"max_source", {"0"}},
      {"collection_time", {"0"}},
      {"lock_time", {"-1"}},
      {"core_dump_time", {"0"}},
      {"max_waiting", {"1s"}},
      {"Max_total", {"1"}},
      {"", {"1"}}};
  Values expected = defaults;
  expected["max_waiting"] = 5;
  for (const auto& [key, values] : cases) {
    for (const std::string value : values) {
      const std::string line = key + (" = " + value);
      makeFile("collection.conf", line + "\nmax_waiting = 5\n");
      EXPECT_EQ(read(), std::pair(expected, path + ": cannot be read: " + line + "\n"));
    }
  }
  makeFile("collection.conf", "max_total\nmax\x1b_total = 1\r\nmax_total = a\u202e\n");
  const std::string told = path + ": cannot be read: max";
  EXPECT_EQ(read().second, told + "_total\n" + told + "?_total = 1\n" + told + "_total = a?\n");
}

TEST_F(LimitsTest, ToleratesAMissingFileAndTellsOfAnUnreadableOne) {
  EXPECT_EQ(read(), std::pair(defaults, std::string()));
  makeFile("collection.conf", "max_total = 1");
  chmod(path.c_str(), 0);
  overridePermissions(false);
  EXPECT_EQ(read(), std::pair(defaults, path + ": Permission denied\n"));
  overridePermissions(true);
  path = directory.path;
  EXPECT_EQ(read(), std::pair(defaults, path + ": Is a directory\n"));
}

}  // namespace
}  // namespace collection
