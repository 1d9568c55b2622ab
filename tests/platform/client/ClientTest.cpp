// What a client promises, as far as it shows where no service is: for any port.

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

#include "platform/client/HelperClient.h"
#include "platform/client/ManagerClient.h"
#include "tests/platform/bus/Mailbox.h"

namespace {

namespace client = kst::client;

thread_local bool isQueueThread = false;

/// Tells where its last copy went.
std::shared_ptr<bool> tellEnd(Mailbox<std::string>& told) {
  return {new bool, [&](const bool* token) {
            delete token;
            told.put(isQueueThread ? "destroyed on the queue" : "destroyed elsewhere");
          }};
}

class ClientTest : public testing::Test {
 protected:
  ClientTest() {
    // For a client that looks for a bus.
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nowhere", 1);  // NOLINT(concurrency-mt-unsafe)
    queue.submit([] { isQueueThread = true; });
    manager = client::CreateManager("test", queue);
  }

  Mailbox<std::string> told;
  const TaskQueue queue = TaskQueue::create("test");
  std::shared_ptr<ManagerClient> manager;
};

TEST_F(ClientTest, ACommandIsAnsweredOnceOnTheQueue) {
  client::PerformCommand(
      manager, kst::kCommandTraceDumpState,
      [this, end = tellEnd(told)](const CommandResult& result, const MessageValue& reply) {
        EXPECT_EQ(reply, MessageValue());
        told.put((isQueueThread ? "on the queue " : "elsewhere ") + std::to_string(result.status));
      },
      {});
  EXPECT_EQ(told.next(), "on the queue " + std::to_string(kst::kResultManagerNotRunning));
  EXPECT_EQ(told.next(), "destroyed on the queue");
}

TEST_F(ClientTest, WhoWaitsGetsTheStatusAndASettingOfTheDevice) {
  MessageValue reply = "old";
  EXPECT_EQ(client::PerformCommand(manager, kst::kCommandTraceDumpState, {}, reply).status,
            kst::kResultManagerNotRunning);
  EXPECT_EQ(reply, MessageValue());
  EXPECT_EQ(client::PerformCommand(manager, kst::kCommandGetTraceProperty, {}, reply).status, 0);
  EXPECT_NE(reply.dictionary(), nullptr);

  MessageDict helped;
  helped.set("old", true);
  const auto helper = kst::HelperClient::create("test", {});
  EXPECT_EQ(helper->perform(kst::helper::TaskID::kSyscollect, "Any", {}, helped).status,
            kst::kResultHelperNotRunning);
  EXPECT_TRUE(helped.entries().empty());
}

TEST_F(ClientTest, TheStateIsToldWhileEventsAreOn) {
  client::RegisterEventHandler(
      manager, kst::kEventServerStateChange,
      [this](const MessageValue& payload, const TaskGroup& /*group*/) {
        EXPECT_TRUE(isQueueThread);
        told.put(payload.dictionary()->text(kst::kKeyServerState, "no text"));
      });
  client::EventsOn(manager);
  EXPECT_EQ(told.next(), kst::kServerStateStopped);
  client::EventsOn(manager);  // tells it again
  EXPECT_EQ(told.next(), kst::kServerStateStopped);

  Mailbox<bool> released;
  queue.submit([&] { released.next(); });
  client::EventsOn(manager);
  client::EventsOff(manager);
  released.put(true);
  MessageValue reply;
  client::PerformCommand(manager, "Any", {}, reply);  // comes behind what was told before
  EXPECT_EQ(told.next(std::chrono::milliseconds(0)), std::nullopt);
}

TEST_F(ClientTest, TheProcessMayEndAtAnyTime) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        client::EventsOn(manager);
        client::PerformCommand(manager, "Any", [](const auto&, const auto&) {}, {});
        exit(7);  // NOLINT(concurrency-mt-unsafe)
      },
      testing::ExitedWithCode(7), "^$");
}

}  // namespace
