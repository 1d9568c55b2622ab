#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>

#include "tests/e2e/Eventually.h"
#include "tests/e2e/Program.h"

namespace {

TEST(SimulatorTest, ExitStatusIsThatOfTheCommand) {
  struct Case {
    std::vector<std::string> words;
    int status;
  };
  const Case cases[] = {
      {{"--", "true"}, 0},
      {{"--", "sh", "-c", "exit 7"}, 7},
      {{"--", "sh", "-c", "kill -9 $$"}, 128 + SIGKILL},
      {{"--", "/no/such/program"}, 127},
      {{"--absent", "nobody"}, 2},
      {{"--unknown"}, 2},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(testing::PrintToString(test.words));
    std::vector<std::string> command = {"kst-simulator"};
    command.insert(command.end(), test.words.begin(), test.words.end());
    EXPECT_EQ(runProgram(command).status, test.status);
  }
}

TEST(SimulatorTest, EveryWayOutEndsWhatItStarted) {
  for (const int signal : {0, SIGTERM, SIGHUP, SIGKILL}) {
    SCOPED_TRACE(signal);
    Program simulator({"kst-simulator", "--", "sh", "-c", "echo $KESTRANE_ROOT $$; read -r end"});
    const std::string line = simulator.readUntil("\n");
    const std::string root = line.substr(0, line.find(' '));
    const pid_t command = std::stoi(line.substr(line.find(' ')));
    ASSERT_TRUE(std::filesystem::is_directory(root));
    if (signal != 0) {
      kill(simulator.id(), signal);
    }
    simulator.finish();  // ends when everything that holds the pipes has ended
    EXPECT_TRUE(eventually([&] { return kill(command, 0) != 0; }));
    if (signal != SIGKILL) {
      EXPECT_FALSE(std::filesystem::exists(root));
    }
    EXPECT_TRUE(eventually([&] { return !std::filesystem::exists(root); }));
  }
}

}  // namespace
