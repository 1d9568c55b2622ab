#include "Tools/KSTTool/KSTShell.h"

#include <gmock/gmock.h>
#include <pthread.h>

#include <chrono>

#include "Tools/KSTTool/ServerRunning.h"
#include "platform/client/Constants.h"
#include "tests/fakes/Fakes.h"

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

TEST_F(KSTShellTest, ConnectsWaitsHalfASecondAndBuildsTheTree) {
  const Clock::time_point before = Clock::now();
  const std::shared_ptr<CommandBase> root = OpenShell().createRootCommand();
  EXPECT_GE(lastDeadline, before + kWait);
  EXPECT_TRUE(isServerRunning());
  EXPECT_EQ(takeLog(),
            "CreateManager ksttool\nRegisterEventHandler ServerStateChange\nEventsOff\nEventsOn\n"
            "getprogname\n");
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
  for (const MessageValue& other :
       {MessageValue(), MessageValue("Started"), MessageValue(MessageDict()),
        MessageValue(stateEvent(started)), MessageValue(stateEvent("Starting")),
        MessageValue(stateEvent("Started ")), MessageValue(stateEvent("started"))}) {
    fakes::sendEvent(started);
    EXPECT_TRUE(isServerRunning());
    fakes::sendEvent(other);
    EXPECT_FALSE(isServerRunning());
  }
}

}  // namespace
