#include "Tools/KSTTool/KSTShell.h"

#include <gmock/gmock.h>
#include <pthread.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <iostream>

#include "Tools/KSTTool/ServerRunning.h"
#include "platform/client/Constants.h"
#include "tests/fakes/Fakes.h"

// What Tools/KSTTool/KSTShell.cpp defines as `main`.
int ksttoolMain(int argc, char** argv);

using Clock = std::chrono::steady_clock;

namespace {

constexpr std::chrono::milliseconds kWait(500);
Clock::time_point lastDeadline;

MessageDict stateEvent(const MessageValue& state) {
  return fakes::dictOf(kst::kKeyServerState, state);
}

}  // namespace

/// Takes the place of the system's, to see the deadline; the manager starts during the wait.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the library's are reserved
extern "C" int pthread_cond_clockwait(pthread_cond_t* /*condition*/, pthread_mutex_t* /*mutex*/,
                                      clockid_t clock, const timespec* deadline) {
  lastDeadline = Clock::time_point(std::chrono::seconds(deadline->tv_sec) +
                                   std::chrono::nanoseconds(deadline->tv_nsec));
  EXPECT_LE(lastDeadline, Clock::now() + kWait);
  fakes::sendEvent(stateEvent(kst::kServerStateStarted));
  clock_nanosleep(clock, TIMER_ABSTIME, deadline, nullptr);
  return ETIMEDOUT;
}

namespace {

class OpenShell : public KSTShell {
 public:
  using KSTShell::createRootCommand;
};

using KSTShellTest = fakes::Test;

const std::string kConnecting =
    "CreateManager ksttool\nRegisterEventHandler ServerStateChange\n"
    "EventsOff\nEventsOn\ngetprogname\n";

TEST_F(KSTShellTest, ConnectsWaitsHalfASecondAndBuildsTheTree) {
  const Clock::time_point before = Clock::now();
  const std::shared_ptr<CommandBase> root = OpenShell().createRootCommand();
  EXPECT_GE(lastDeadline, before + kWait);
  EXPECT_TRUE(isServerRunning());
  EXPECT_EQ(takeLog(), kConnecting);
  EXPECT_TRUE(root->getOptions().empty());
  ASSERT_EQ(root->getSubCommands().size(), 1U);
  EXPECT_EQ(root->getSubCommands().at("logdump")->getPath(), "/ksttool/logdump");

  // A client that has dropped the handler is not waited for.
  fakes::script().keepsHandlers = false;
  lastDeadline = {};
  OpenShell().createRootCommand();
  EXPECT_EQ(lastDeadline, Clock::time_point());
}

TEST_F(KSTShellTest, FollowsServerStateEvents) {
  OpenShell().createRootCommand();
  const MessageValue started = stateEvent(kst::kServerStateStarted);
  for (const MessageValue& other : std::vector<MessageValue>{{},
                                                             "Started",
                                                             MessageDict(),
                                                             stateEvent(started),
                                                             stateEvent("Starting"),
                                                             stateEvent("Starte"),
                                                             stateEvent("Started "),
                                                             stateEvent("started"),
                                                             stateEvent("")}) {
    fakes::sendEvent(started);
    EXPECT_TRUE(isServerRunning());
    fakes::sendEvent(other);
    EXPECT_FALSE(isServerRunning());
  }
}

/// Runs the tool to the end of this process. Standard error gets what the device and the services
/// are asked, and at the end what went to standard output.
[[noreturn]] void runTool(std::vector<std::string> args) {
  std::ios::sync_with_stdio(false);  // the tool does so too, which would undo the following
  static auto& out = *new std::ostringstream;
  std::cout.rdbuf(out.rdbuf());
  std::atexit([] { std::cerr << "output: " << out.str(); });
  fakes::script().log = &std::cerr;
  fakes::script().keepsHandlers = false;  // else each start takes half a second
  std::vector<char*> argv;
  for (std::string& arg : args) {
    argv.push_back(arg.data());
  }
  argv.push_back(nullptr);
  exit(ksttoolMain(static_cast<int>(args.size()), argv.data()));  // NOLINT(concurrency-mt-unsafe)
}

TEST_F(KSTShellTest, ChecksRadioAndDaemons) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::string noRadio = "getRadio\noutput: 'ksttool' is not supported on this product.\n";
  const std::string questions = "getRadio\nisProcessRunning Corvend\ngetProduct\n";
  const std::string vexild = "isProcessRunning vexild\n";
  const std::string noDaemon = questions + vexild +
                               "output: Corvend process is not running. Please run/load Corvend "
                               "(or vexild) and try again.\n";
  const std::string started = kConnecting + "output: ";
  const std::string refused =
      kConnecting + "Server is not running. Please try after server starts.\noutput: ";
  const struct {
    std::int32_t radio;
    std::set<std::string> processes;
    std::int32_t product;
    int status;
    std::string log;
    std::vector<std::string> args = {"ksttool", "--"};
  } cases[] = {
      {0, {"Corvend", "vexild"}, 58, 255, noRadio},
      {-1, {"Corvend", "vexild"}, 58, 0, questions + started},
      {1, {"vexild"}, 0, 0, questions + vexild + started},
      {1, {}, 57, 255, noDaemon},
      {1, {}, 58, 0, questions + started},
      {1, {"Corvend"}, 0, 1, questions + refused, {"ksttool", "logdump", "core"}},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(testing::Message() << "radio " << test.radio << ", product " << test.product);
    fakes::script().radio = test.radio;
    fakes::script().processes = test.processes;
    fakes::script().product = test.product;
    EXPECT_EXIT(runTool(test.args), testing::ExitedWithCode(test.status), testing::StrEq(test.log));
  }
}

}  // namespace
