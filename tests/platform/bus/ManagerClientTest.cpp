#include "platform/client/ManagerClient.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <future>
#include <optional>
#include <utility>

#include "platform/tasks/WorkList.h"
#include "tests/platform/bus/Mailbox.h"
#include "tests/platform/bus/PrivateBus.h"
#include "tests/platform/bus/ScriptedService.h"

namespace {

using Outcome = std::pair<CommandResult, MessageValue>;

MessageDict dictOf(const std::string& key, MessageValue value) {
  MessageDict dict;
  dict.set(key, std::move(value));
  return dict;
}

class ManagerClientTest : public testing::Test {
 protected:
  /// Ends what still calls back into the test.
  void TearDown() override {
    manager.reset();
    std::promise<void> drained;
    queue.submit([&] { drained.set_value(); });
    drained.get_future().wait();
  }

  void connect() { manager = kst::client::CreateManager("test", queue); }

  CommandResult performAndWait(const std::string& command, MessageValue& reply,
                               const MessageDict& request = {}) {
    return kst::client::PerformCommand(manager, command, request, reply);
  }

  void perform(const std::string& command) {
    kst::client::PerformCommand(manager, command,
                                [this](const CommandResult& result, const MessageValue& reply) {
                                  outcomes.put({result, reply});
                                },
                                {});
  }

  void watch() {
    kst::client::RegisterEventHandler(
        manager, kst::kEventServerStateChange,
        [this](const MessageValue& payload, const TaskGroup& /*group*/) {
          states.put(payload.dictionary()->text(kst::kKeyServerState, "no text"));
        });
  }

  PrivateBus bus;
  Mailbox<Outcome> outcomes;
  Mailbox<std::string> states;
  TaskQueue queue = TaskQueue::create("test.queue");
  std::shared_ptr<ManagerClient> manager;
};

const ScriptedService::Script kSilent = [](sd_bus_message*) {};

TEST_F(ManagerClientTest, EveryAnswerBecomesAStatusAndAReply) {
  struct Case {
    const char* name;
    ScriptedService::Script script;
    std::int32_t status;
    MessageValue reply;
  };
  const auto variant = [](const char* type, auto value) {
    return
        [=](sd_bus_message* call) { sd_bus_reply_method_return(call, "isv", 0, "", type, value); };
  };
  const auto error = [](const char* name) {
    return [=](sd_bus_message* call) { sd_bus_reply_method_errorf(call, name, "no"); };
  };
  const Case cases[] = {
      {"dictionary",
       [](sd_bus_message* call) {
         sd_bus_reply_method_return(call, "isv", 0, "", "a{sv}", 3, "text", "s", "t", "path", "o",
                                    "/p", "nested", "a{sv}", 1, "flag", "b", 1);
       },
       0,
       [] {
         MessageDict reply = dictOf("text", "t");
         reply.set("path", {});
         reply.set("nested", dictOf("flag", true));
         return MessageValue(reply);
       }()},
      {"text", variant("s", "plain"), 0, "plain"},
      {"unsigned byte", variant("y", 200), 0, std::int64_t{200}},
      {"negative 16 bits", variant("n", -3), 0, std::int64_t{-3}},
      {"unsigned 32 bits", variant("u", 4000000000U), 0, std::int64_t{4000000000}},
      {"64 bits", variant("x", std::int64_t{1} << 40), 0, std::int64_t{1} << 40},
      {"unsigned 64 bits that fit", variant("t", std::uint64_t{7}), 0, std::int64_t{7}},
      {"unsigned 64 bits that do not", variant("t", UINT64_MAX), 0, {}},
      {"a kind that messages lack", variant("d", 1.5), 0, {}},
      {"an array",
       [](sd_bus_message* call) { sd_bus_reply_method_return(call, "isv", 0, "", "as", 1, "a"); },
       0,
       {}},
      {"the service's own status",
       [](sd_bus_message* call) { sd_bus_reply_method_return(call, "isv", -7, "why", "s", "r"); },
       -7, "r"},
      {"too few values",
       [](sd_bus_message* call) { sd_bus_reply_method_return(call, "is", 0, ""); },
       kst::kResultMalformedReply,
       {}},
      {"wrong types",
       [](sd_bus_message* call) { sd_bus_reply_method_return(call, "ssv", "0", "", "s", ""); },
       kst::kResultMalformedReply,
       {}},
      {"nothing",
       [](sd_bus_message* call) { sd_bus_reply_method_return(call, ""); },
       kst::kResultMalformedReply,
       {}},
      {"denied", error(SD_BUS_ERROR_ACCESS_DENIED), kst::kResultAccessDenied, {}},
      {"unknown method", error(SD_BUS_ERROR_UNKNOWN_METHOD), kst::kResultCallFailed, {}},
  };
  bus.start();
  connect();
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    const ScriptedService service(dbus::kManager, test.script);
    MessageValue reply = "old";
    const CommandResult result = performAndWait("Any", reply);
    EXPECT_EQ(result.status, test.status) << result.text;
    EXPECT_EQ(reply, test.reply);
    perform("Any");
    const std::optional<Outcome> outcome = outcomes.next();
    ASSERT_TRUE(outcome);
    EXPECT_EQ(outcome->first.status, test.status);
    EXPECT_EQ(outcome->second, test.reply);
  }
}

TEST_F(ManagerClientTest, RequestArrivesWholeAndStartsNoService) {
  bus.start();
  Mailbox<std::string> seen;
  const ScriptedService service(dbus::kManager, [&](sd_bus_message* call) {
    const char* client = "";
    const char* command = "";
    std::string text = sd_bus_message_get_auto_start(call) ? "starts " : "";
    sd_bus_message_read(call, "ss", &client, &command);
    text += std::string(client) + " " + command;
    sd_bus_message_enter_container(call, 'a', "{sv}");
    const char* key = "";
    const char* type = "";
    while (sd_bus_message_enter_container(call, 'e', "sv") > 0) {
      sd_bus_message_read(call, "s", &key);
      sd_bus_message_peek_type(call, nullptr, &type);
      text += std::string(" ") + key + ":" + type;
      sd_bus_message_skip(call, "v");
      sd_bus_message_exit_container(call);
    }
    seen.put(text);
    sd_bus_reply_method_return(call, "isv", 0, "", "s", "");
  });
  connect();
  MessageDict request = dictOf("z", std::string(1 << 20, 'x'));
  request.set("broken", "\xff");
  request.set("flag", false);
  request.set("number", std::int64_t{1500});
  request.set("a", dictOf("b", "c"));
  MessageValue reply;
  EXPECT_EQ(performAndWait("Command", reply, request).status, 0);
  EXPECT_EQ(seen.next(), "test Command z:s flag:b number:x a:a{sv}");
}

TEST_F(ManagerClientTest, WithoutAServiceNothingRunsAndTraceSettingsComeFromTheDevice) {
  const std::string config = testing::TempDir() + "/manager_client_test.conf";
  std::ofstream(config) << "trace.BasebandTrace.Enabled = true\n";
  setenv("KESTRANE_DEVICE_CONF", config.c_str(), 1);
  MessageDict request = dictOf(kst::kKeyTraceName, kst::kTraceBaseband);
  request.set(kst::kKeyTracePropertyName, kst::kKeyTraceEnabled);

  const std::pair<const char*, std::function<void()>> cases[] = {
      {"no bus", [] {}},
      {"a bus without the service", [&] { bus.start(); }},
      {"a bus that answers nothing", [&] { bus.freeze(); }},
  };
  for (const auto& [name, prepare] : cases) {
    SCOPED_TRACE(name);
    prepare();
    connect();
    MessageValue reply;
    EXPECT_EQ(performAndWait("Any", reply).status, kst::kResultManagerNotRunning);
    EXPECT_TRUE(reply.isNull());
    EXPECT_EQ(performAndWait(kst::kCommandGetTraceProperty, reply, request).status, 0);
    EXPECT_EQ(reply, MessageValue(dictOf(kst::kKeyTracePropertyValue, "true")));
    EXPECT_EQ(performAndWait(kst::kCommandGetTraceProperty, reply).status, 0);
    EXPECT_EQ(reply, MessageValue(MessageDict()));
  }
}

TEST_F(ManagerClientTest, LostReplyCallsBackOnceOnTheQueue) {
  std::promise<std::thread::id> queueThread;
  queue.submit([&] { queueThread.set_value(std::this_thread::get_id()); });
  const std::thread::id onQueue = queueThread.get_future().get();
  Mailbox<bool> received;
  std::optional<ScriptedService> service;
  const std::pair<const char*, std::function<void()>> losses[] = {
      {"the service goes", [&] { service.reset(); }},
      {"the bus goes", [&] { bus.kill(); }},
      {"the client goes", [&] { manager.reset(); }},
  };
  for (const auto& [name, lose] : losses) {
    SCOPED_TRACE(name);
    bus.kill();
    bus.start();
    service.reset();
    service.emplace(dbus::kManager, [&](sd_bus_message*) { received.put(true); });
    connect();
    Mailbox<bool> destroyedOnQueue;
    std::shared_ptr<void> token(
        nullptr, [&](void*) { destroyedOnQueue.put(std::this_thread::get_id() == onQueue); });
    kst::client::PerformCommand(
        manager, "Any",
        [&, token = std::move(token)](const CommandResult& result, const MessageValue& reply) {
          outcomes.put({result, reply});
        },
        {});
    ASSERT_TRUE(received.next());
    lose();
    const std::optional<Outcome> outcome = outcomes.next();
    ASSERT_TRUE(outcome);
    EXPECT_EQ(outcome->first.status, kst::kResultReplyLost) << outcome->first.text;
    EXPECT_TRUE(outcome->second.isNull());
    EXPECT_EQ(destroyedOnQueue.next(), true);
    EXPECT_FALSE(outcomes.next(std::chrono::milliseconds(0))) << "called twice";
  }
}

TEST_F(ManagerClientTest, EventsFollowTheService) {
  bus.start();
  std::optional<ScriptedService> service(std::in_place, dbus::kManager, kSilent, "Starting");
  connect();
  watch();
  EXPECT_FALSE(states.next(std::chrono::milliseconds(100))) << "events are off at first";
  kst::client::EventsOn(manager);
  EXPECT_EQ(states.next(), "Starting");
  for (int i = 1; i <= 500; ++i) {
    service->setState(std::to_string(i));
  }
  for (int i = 1; i <= 500; ++i) {
    ASSERT_EQ(states.next(), std::to_string(i));
  }
  service.reset();
  EXPECT_EQ(states.next(), kst::kServerStateStopped);
  service.emplace(dbus::kManager, kSilent, "Started");
  EXPECT_EQ(states.next(), "Started");

  kst::client::EventsOff(manager);
  service->setState("Stopping");
  EXPECT_FALSE(states.next(std::chrono::milliseconds(100)));
  kst::client::EventsOn(manager);
  EXPECT_EQ(states.next(), "Stopping");

  bus.kill();
  EXPECT_EQ(states.next(), kst::kServerStateStopped);
}

TEST_F(ManagerClientTest, ConnectsWhenABusAppearsAndAgainWhenItComesBack) {
  connect();
  watch();
  kst::client::EventsOn(manager);
  EXPECT_EQ(states.next(), kst::kServerStateStopped);
  for (int round = 0; round < 2; ++round) {
    bus.start();
    const ScriptedService service(dbus::kManager, [](sd_bus_message* call) {
      sd_bus_reply_method_return(call, "isv", 0, "", "s", "");
    });
    EXPECT_EQ(states.next(), "Started");
    MessageValue reply;
    EXPECT_EQ(performAndWait("Any", reply).status, 0);
    bus.kill();
    EXPECT_EQ(states.next(), kst::kServerStateStopped);
    EXPECT_EQ(performAndWait("Any", reply).status, kst::kResultManagerNotRunning);
  }
}

}  // namespace
