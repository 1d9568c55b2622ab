#include "Tools/KSTTool/KSTShell.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>

#include "Tools/KSTTool/ServerRunning.h"
#include "platform/client/Constants.h"
#include "tests/fakes/Fakes.h"

namespace {

class OpenShell : public KSTShell {
 public:
  using KSTShell::createRootCommand;
};

MessageDict stateEvent(MessageValue state) {
  MessageDict payload;
  payload.set(kst::kKeyServerState, std::move(state));
  return payload;
}

TEST(KSTShell, ConnectsAndBuildsTheTree) {
  const std::shared_ptr<CommandBase> root = OpenShell().createRootCommand();
  EXPECT_THAT(fakes::takeLog(), testing::ElementsAre("CreateManager ksttool on ksttool.queue",
                                                     "RegisterEventHandler ServerStateChange",
                                                     "EventsOff", "EventsOn", "getprogname"));
  EXPECT_EQ(root->getPath(), "/ksttool");
  EXPECT_TRUE(root->getOptions().empty());
  ASSERT_EQ(root->getSubCommands().size(), 1U);
  EXPECT_EQ(root->getSubCommands().at("logdump")->getPath(), "/ksttool/logdump");
  EXPECT_EQ(root->getSubCommands().at("logdump")->getParent().lock(), root);
}

TEST(KSTShell, WaitsHalfASecondAsLongAsTheClientKeepsTheHandler) {
  const auto timeToCreate = [] {
    const auto start = std::chrono::steady_clock::now();
    OpenShell().createRootCommand();
    return std::chrono::steady_clock::now() - start;
  };
  constexpr std::chrono::milliseconds kWait(500);
  EXPECT_GE(timeToCreate(), kWait);
  fakes::script().keepsHandlers = false;
  // The quickest of three: a busy machine may be late now and then.
  EXPECT_LT(std::min({timeToCreate(), timeToCreate(), timeToCreate()}), kWait);
}

TEST(KSTShell, FollowsServerStateEvents) {
  OpenShell().createRootCommand();
  EXPECT_FALSE(isServerRunning());
  const MessageValue started = stateEvent(kst::kServerStateStarted);
  const MessageValue others[] = {{},
                                 "Started",
                                 MessageDict(),
                                 stateEvent({}),
                                 stateEvent(true),
                                 stateEvent(started),
                                 stateEvent(kst::kServerStateStarting),
                                 stateEvent(kst::kServerStateStopped),
                                 stateEvent("Starte"),
                                 stateEvent("Started "),
                                 stateEvent("started"),
                                 stateEvent("")};
  for (const MessageValue& other : others) {
    SCOPED_TRACE(&other - others);
    fakes::sendEvent(started);
    EXPECT_TRUE(isServerRunning());
    fakes::sendEvent(other);
    EXPECT_FALSE(isServerRunning());
  }
}

}  // namespace
