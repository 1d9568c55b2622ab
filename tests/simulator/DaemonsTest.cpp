#include <gmock/gmock.h>

#include <chrono>
#include <thread>

#include "simulator/ControlPipe.h"
#include "simulator/CoreDumpFolder.h"
#include "simulator/RotatingLog.h"
#include "tests/support/FileSystemTest.h"

namespace simulator {
namespace {

using std::chrono::milliseconds;

using DaemonsTest = FileSystemTest;

TEST_F(DaemonsTest, ALogKeepsTheLatestLinesAndIsNotWrittenWhileSomebodyReadsIt) {
  const std::string current = makeFile("logs/diag.log", "of an earlier run\n");
  RotatingLog log(directory / "logs", "diag.log", {.fileSize = 32, .olderFiles = 2});
  ASSERT_FALSE(log.open());
  for (int line = 10; line < 29; ++line) {
    log.append("line " + std::to_string(line));
  }
  const kst::support::Descriptor file(open((directory / "logs.lock").c_str(), O_RDWR | O_CLOEXEC));
  EXPECT_TRUE(setLock(file, F_RDLCK));
  std::thread writing([&log] { log.append("line 29"); });
  std::this_thread::sleep_for(milliseconds(50));
  EXPECT_EQ(readFile(current), "line 27\nline 28\n");
  EXPECT_TRUE(setLock(file, F_UNLCK));
  writing.join();
  EXPECT_TRUE(setLock(file, F_WRLCK));
  EXPECT_EQ(tree("logs"),
            "diag.log.1=line 23\nline 24\nline 25\nline 26\n "
            "diag.log.2=line 19\nline 20\nline 21\nline 22\n "
            "diag.log=line 27\nline 28\nline 29\n");
}

TEST_F(DaemonsTest, CoreDumpsAreCompleteAndTheLatestAreKept) {
  make("dumps/.unfinished dumps/core-1.bin dumps/core-2.bin");
  const CoreDumpFolder dumps(directory / "dumps");
  ASSERT_FALSE(dumps.open());
  EXPECT_THAT(namesIn(directory / "dumps"), testing::SizeIs(2));
  makeFile("dumps/core-0.bin");
  ASSERT_FALSE(dumps.write("Hard\tcrash"));
  ASSERT_FALSE(dumps.write("Hard\tcrash"));
  std::vector<std::string> names = namesIn(directory / "dumps");
  std::sort(names.begin(), names.end());
  ASSERT_THAT(names, testing::ElementsAre("core-2.bin", testing::StartsWith("core-2"),
                                          testing::StartsWith("core-2")));
  const std::string dump = readFile(directory / ("dumps/" + names[1]));
  EXPECT_THAT(dump.substr(0, 60),
              testing::MatchesRegex("VEXILD CORE DUMP [-0-9]+\nHard\tcrash\n(.|\n)*"));
  EXPECT_GT(dump.size(), 1U << 20);
}

TEST_F(DaemonsTest, RequestsAreTakenLineByLineAndWaitedForBetween) {
  const std::string path = directory / "run/control";
  for (int run = 0; run < 2; ++run) {
    ControlPipe control;
    ASSERT_FALSE(control.open(path));
    std::ofstream(path) << "one\ntwo\n";
    EXPECT_THAT(control.wait(std::chrono::seconds(20)), testing::ElementsAre("one", "two"));
    const auto before = std::chrono::steady_clock::now();
    EXPECT_THAT(control.wait(milliseconds(50)), testing::IsEmpty());
    EXPECT_GE(std::chrono::steady_clock::now() - before, milliseconds(49));
  }
}

}  // namespace
}  // namespace simulator
