#include "simulator/RotatingLog.h"

#include <gmock/gmock.h>

#include <string>

#include "tests/support/FileSystemTest.h"

namespace simulator {
namespace {

using RotatingLogTest = FileSystemTest;

TEST_F(RotatingLogTest, KeepsTheLatestLinesWithinItsBounds) {
  const std::string current = makeFile("logs/diag.log", "of an earlier run\n");
  RotatingLog log(directory / "logs", "diag.log", {.fileSize = 32, .olderFiles = 2});
  ASSERT_FALSE(log.open());
  for (int line = 10; line < 30; ++line) {
    log.append("line " + std::to_string(line));
  }

  EXPECT_THAT(entries("logs"),
              testing::UnorderedElementsAre("diag.log", "diag.log.1", "diag.log.2"));
  EXPECT_EQ(contentOf(current + ".2"), "line 19\nline 20\nline 21\nline 22\n");
  EXPECT_EQ(contentOf(current + ".1"), "line 23\nline 24\nline 25\nline 26\n");
  EXPECT_EQ(contentOf(current), "line 27\nline 28\nline 29\n");
}

TEST_F(RotatingLogTest, SaysWhyItCannotBeOpened) {
  RotatingLog log(makeFile("file") + "/logs", "diag.log", {.fileSize = 32, .olderFiles = 2});
  EXPECT_THAT(log.open().value_or(""), testing::StartsWith("mkdir"));
}

}  // namespace
}  // namespace simulator
