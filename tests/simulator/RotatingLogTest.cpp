#include "simulator/RotatingLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/collection/TemporaryDevice.h"

namespace simulator {
namespace {

TEST(RotatingLogTest, KeepsTheLatestLinesWithinItsBounds) {
  const TemporaryDevice device;
  const std::string folder = device.paths().basebandLogs;
  writeFile(folder + "/diag.log", "of an earlier run\n");
  RotatingLog log(folder, "diag.log", {.fileSize = 32, .olderFiles = 2});
  ASSERT_FALSE(log.open());
  for (int line = 10; line < 30; ++line) {
    log.append("line " + std::to_string(line));
  }

  EXPECT_THAT(namesIn(folder), testing::ElementsAre("diag.log", "diag.log.1", "diag.log.2"));
  EXPECT_EQ(readFile(folder + "/diag.log.2"), "line 19\nline 20\nline 21\nline 22\n");
  EXPECT_EQ(readFile(folder + "/diag.log.1"), "line 23\nline 24\nline 25\nline 26\n");
  EXPECT_EQ(readFile(folder + "/diag.log"), "line 27\nline 28\nline 29\n");
}

TEST(RotatingLogTest, SaysWhyItCannotBeOpened) {
  const TemporaryDevice device;
  writeFile(device.root() + "/file", "");
  RotatingLog log(device.root() + "/file/logs", "diag.log", {.fileSize = 32, .olderFiles = 2});
  EXPECT_THAT(log.open().value_or(""), testing::StartsWith("mkdir"));
}

}  // namespace
}  // namespace simulator
