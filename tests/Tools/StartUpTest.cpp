#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <iostream>
#include <sstream>

#include "tests/fakes/Fakes.h"

// What Tools/KSTTool/KSTShell.cpp defines as `main`.
int ksttoolMain(int argc, char** argv);

namespace {

/// Runs the tool without a command, to the end of this process. Standard error then holds what the
/// device and the services were asked, and last what went to standard output.
[[noreturn]] void runTool() {
  std::ios::sync_with_stdio(false);  // the tool does so too, which would undo the following
  static auto& out = *new std::ostringstream;
  std::cout.rdbuf(out.rdbuf());
  std::atexit([] { std::cerr << "output: " << out.str(); });
  fakes::script().echoesLog = true;
  fakes::script().keepsHandlers = false;  // else each start takes half a second
  std::array<std::string, 2> args = {"ksttool", "--"};
  std::array<char*, 3> argv = {args[0].data(), args[1].data(), nullptr};
  exit(ksttoolMain(2, argv.data()));  // NOLINT(concurrency-mt-unsafe): as the C library does
}

TEST(StartUp, ChecksRadioAndDaemons) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::string noRadio = "getRadio\noutput: 'ksttool' is not supported on this product.\n";
  const std::string questions = "getRadio\nisProcessRunning Corvend\ngetProduct\n";
  const std::string vexild = "isProcessRunning vexild\n";
  const std::string noDaemon = questions + vexild +
                               "output: Corvend process is not running. Please run/load Corvend "
                               "(or vexild) and try again.\n";
  const std::string started =
      "CreateManager ksttool on ksttool.queue\nRegisterEventHandler ServerStateChange\n"
      "EventsOff\nEventsOn\ngetprogname\noutput: ";
  const struct {
    std::int32_t radio;
    std::set<std::string> processes;
    std::int32_t product;
    int status;
    std::string log;
  } cases[] = {
      {0, {"Corvend", "vexild"}, 58, 255, noRadio},
      {-1, {"Corvend", "vexild"}, 58, 0, questions + started},
      {1, {"Corvend"}, 0, 0, questions + started},
      {1, {"vexild"}, 0, 0, questions + vexild + started},
      {1, {}, 57, 255, noDaemon},
      {1, {}, 58, 0, questions + started},
      {1, {}, 61, 0, questions + started},
      {1, {}, 62, 255, noDaemon},
      {1, {}, -1, 255, noDaemon},
      {1, {}, INT32_MIN, 255, noDaemon},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(testing::Message() << "radio " << test.radio << ", product " << test.product);
    fakes::script().radio = test.radio;
    fakes::script().processes = test.processes;
    fakes::script().product = test.product;
    EXPECT_EXIT(runTool(), testing::ExitedWithCode(test.status), testing::StrEq(test.log));
  }
}

}  // namespace
