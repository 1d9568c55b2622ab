#include "platform/client/ManagerClient.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <optional>
#include <set>
#include <utility>

#include "tests/platform/bus/Mailbox.h"
#include "tests/platform/bus/PrivateBus.h"
#include "tests/platform/bus/ScriptedService.h"
#include "tests/platform/bus/SilentBus.h"
#include "tests/support/TemporaryDirectory.h"

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

  void watch(bool on = true) {
    kst::client::RegisterEventHandler(
        manager, kst::kEventServerStateChange,
        [this](const MessageValue& payload, const TaskGroup& /*group*/) {
          const std::string state = payload.dictionary()->text(kst::kKeyServerState, "no text");
          isStopped = state == kst::kServerStateStopped;
          states.put(state);
        });
    on ? kst::client::EventsOn(manager) : kst::client::EventsOff(manager);
  }

  PrivateBus bus;
  Mailbox<Outcome> outcomes;
  Mailbox<std::string> states;
  std::atomic<bool> isStopped = false;
  TaskQueue queue = TaskQueue::create("test.queue");
  std::shared_ptr<ManagerClient> manager;
};

const ScriptedService::Script kSilent = [](sd_bus_message*) {};
const ScriptedService::Script kSuccess = ScriptedService::reply("isv", 0, "", "s", "");

TEST_F(ManagerClientTest, EveryAnswerBecomesAStatusAndAReply) {
  struct Case {
    const char* name;
    ScriptedService::Script script;
    std::int32_t status;
    MessageValue reply;
  };
  constexpr auto reply = [](const char* types, auto... values) {
    return ScriptedService::reply(types, values...);
  };
  constexpr auto variant = [](const char* type, auto... values) {
    return ScriptedService::reply("isv", 0, "", type, values...);
  };
  constexpr auto error = [](const char* name) {
    return [=](sd_bus_message* call) { sd_bus_reply_method_errorf(call, name, "no"); };
  };
  MessageDict dictionary = dictOf("text", "t");
  dictionary.set("path", {});
  dictionary.set("nested", dictOf("flag", true));
  const Case cases[] = {
      {"dictionary",
       variant("a{sv}", 3, "text", "s", "t", "path", "o", "/p", "nested", "a{sv}", 1, "flag", "b",
               1),
       0, dictionary},
      {"text", variant("s", "plain"), 0, "plain"},
      {"unsigned byte", variant("y", 200), 0, std::int64_t{200}},
      {"negative 16 bits", variant("n", -3), 0, std::int64_t{-3}},
      {"unsigned 32 bits", variant("u", 4000000000U), 0, std::int64_t{4000000000}},
      {"64 bits", variant("x", std::int64_t{1} << 40), 0, std::int64_t{1} << 40},
      {"unsigned 64 bits that fit", variant("t", std::uint64_t{7}), 0, std::int64_t{7}},
      {"unsigned 64 bits that do not", variant("t", UINT64_MAX), 0, {}},
      {"a kind that messages lack", variant("d", 1.5), 0, {}},
      {"an array", variant("as", 1, "a"), 0, {}},
      {"the service's own status", reply("isv", -7, "why", "s", "r"), -7, "r"},
      {"absent by its own word", reply("isv", kst::kResultManagerNotRunning, "", "s", "r"),
       kst::kResultManagerNotRunning, "r"},
      {"another that is absent", error(SD_BUS_ERROR_SERVICE_UNKNOWN), kst::kResultCallFailed, {}},
      {"too few values", reply("is", 0, ""), kst::kResultMalformedReply, {}},
      {"wrong types", reply("ssv", "0", "", "s", ""), kst::kResultMalformedReply, {}},
      {"nothing", reply(""), kst::kResultMalformedReply, {}},
      {"denied", error(SD_BUS_ERROR_ACCESS_DENIED), kst::kResultAccessDenied, {}},
      {"unknown method", error(SD_BUS_ERROR_UNKNOWN_METHOD), kst::kResultCallFailed, {}},
  };
  bus.start();
  connect();
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    const ScriptedService service(dbus::kManager, test.script);
    MessageValue value = "old";
    const CommandResult result = performAndWait(kst::kCommandGetTraceProperty, value);
    EXPECT_EQ(result.status, test.status) << result.text;
    EXPECT_EQ(value, test.reply);
    perform(kst::kCommandGetTraceProperty);
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
    kSuccess(call);
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

/// A device on which baseband tracing is on, and the question for that.
struct TraceSetting {
  TraceSetting() {
    std::ofstream(path) << "trace.BasebandTrace.Enabled = true\n";
    setenv("KESTRANE_DEVICE_CONF", path.c_str(), 1);
    request = dictOf(kst::kKeyTraceName, kst::kTraceBaseband);
    request.set(kst::kKeyTracePropertyName, kst::kKeyTraceEnabled);
  }

  const TemporaryDirectory directory;
  const std::string path = directory / "device.conf";
  MessageDict request;
};

TEST_F(ManagerClientTest, WithoutAServiceNothingRunsAndTraceSettingsComeFromTheDevice) {
  const TraceSetting setting;
  const std::pair<const char*, std::function<void()>> cases[] = {
      {"no bus", [] {}},
      {"a bus without the service", [&] { bus.start(); }},
  };
  for (const auto& [name, prepare] : cases) {
    SCOPED_TRACE(name);
    prepare();
    connect();
    MessageValue reply;
    EXPECT_EQ(performAndWait("Any", reply).status, kst::kResultManagerNotRunning);
    EXPECT_TRUE(reply.isNull());
    EXPECT_EQ(performAndWait(kst::kCommandGetTraceProperty, reply, setting.request).status, 0);
    EXPECT_EQ(reply, MessageValue(dictOf(kst::kKeyTracePropertyValue, "true")));
    EXPECT_EQ(performAndWait(kst::kCommandGetTraceProperty, reply).status, 0);
    EXPECT_EQ(reply, MessageValue(MessageDict()));
  }
}

TEST_F(ManagerClientTest, LostReplyCallsBackOnceOnTheQueueWhenTheStateIsTold) {
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
    watch();
    EXPECT_EQ(states.next(), "Started");
    Mailbox<bool> destroyedOnQueue;
    std::shared_ptr<void> token(
        nullptr, [&](void*) { destroyedOnQueue.put(std::this_thread::get_id() == onQueue); });
    Mailbox<bool> toldBefore;
    kst::client::PerformCommand(
        manager, "Any",
        [&, token = std::move(token)](const CommandResult& result, const MessageValue& reply) {
          toldBefore.put(isStopped);
          outcomes.put({result, reply});
        },
        {});
    ASSERT_TRUE(received.next());
    std::future<void> blocked;
    if (name != losses[2].first) {  // a call that waits keeps the client
      blocked = std::async(std::launch::async, [&, client = manager] {
        MessageValue reply;
        EXPECT_EQ(kst::client::PerformCommand(client, "Any", {}, reply).status,
                  kst::kResultReplyLost);
        EXPECT_TRUE(isStopped);
      });
      ASSERT_TRUE(received.next());
    }
    lose();
    const std::optional<Outcome> outcome = outcomes.next();
    ASSERT_TRUE(outcome);
    EXPECT_EQ(outcome->first.status, kst::kResultReplyLost) << outcome->first.text;
    EXPECT_TRUE(outcome->second.isNull());
    EXPECT_EQ(toldBefore.next(), blocked.valid());
    EXPECT_EQ(destroyedOnQueue.next(), true);
    EXPECT_FALSE(outcomes.next(std::chrono::milliseconds(0))) << "called twice";
    if (blocked.valid()) {
      blocked.wait();
      EXPECT_EQ(states.next(), kst::kServerStateStopped);
    }
  }
}

TEST_F(ManagerClientTest, WhoNeverAnswersIsNotWaitedForLong) {
  const TraceSetting setting;
  SilentBus silent;
  std::vector<std::shared_ptr<ManagerClient>> clients;
  std::vector<std::future<CommandResult>> results;
  for (int i = 0; i <= SilentBus::kMostAnswers; ++i) {
    clients.push_back(kst::client::CreateManager("test", queue));
    ASSERT_TRUE(silent.connected.next());
    results.push_back(std::async(std::launch::async, [client = clients.back()] {
      MessageValue reply;
      return kst::client::PerformCommand(client, "Any", {}, reply);
    }));
  }
  for (std::size_t i = 0; i < clients.size(); ++i) {
    SCOPED_TRACE(i);
    const std::int32_t status =
        i < SilentBus::kMostAnswers ? kst::kResultManagerNotRunning : kst::kResultCallFailed;
    ASSERT_EQ(results[i].wait_for(std::chrono::seconds(20)), std::future_status::ready);
    EXPECT_EQ(results[i].get().status, status);
  }
  for (int i = 0; i < SilentBus::kMostAnswers; ++i) {
    ASSERT_TRUE(silent.connected.next());  // once more
  }
  EXPECT_FALSE(silent.connected.next(std::chrono::milliseconds(500)));
  for (std::size_t i = 0; i < clients.size(); ++i) {
    SCOPED_TRACE(i);
    // Whoever asks again does not wait again.
    const std::int32_t status = i < SilentBus::kMostAnswers ? 0 : kst::kResultCallFailed;
    MessageValue reply;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(kst::client::PerformCommand(clients[i], kst::kCommandGetTraceProperty,
                                          setting.request, reply)
                  .status,
              status);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_EQ(reply.dictionary() != nullptr, status == 0);
  }
}

TEST_F(ManagerClientTest, ABusThatHangsUpIsTriedAgainNowAndThen) {
  SilentBus rude(true);
  connect();
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(rude.connected.next());
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(600));
  int attempts = 0;
  while (rude.connected.next(std::chrono::milliseconds(0))) {
    ++attempts;
  }
  EXPECT_LT(attempts, 10);
}

TEST_F(ManagerClientTest, NobodyElseIsBelieved) {
  bus.start();
  Mailbox<std::string> callers;
  ScriptedService service(dbus::kManager, [&](sd_bus_message* call) {
    callers.put(sd_bus_message_get_sender(call));
    kSuccess(call);
  });
  connect();
  watch();
  EXPECT_EQ(states.next(), "Started");
  MessageValue reply;
  EXPECT_EQ(performAndWait("Any", reply).status, 0);
  const std::string client = callers.next().value_or("");

  sd_bus* opened = nullptr;
  ASSERT_GE(sd_bus_open_system(&opened), 0);
  const dbus::BusPtr forger(opened);
  const auto forge = [&](const char* path, const char* interface, const char* member,
                         const char* types, auto... values) {
    sd_bus_message* made = nullptr;
    sd_bus_message_new_signal(opened, &made, path, interface, member);
    const dbus::MessagePtr signal(made);
    sd_bus_message_append(made, types, values...);
    sd_bus_send_to(opened, made, client.c_str(), nullptr);
  };
  const char* const name = dbus::kManager.service;
  forge(dbus::kBusPath, dbus::kBusService, "NameOwnerChanged", "sss", name, ":1.0", "");
  forge(dbus::kManager.path, "org.freedesktop.DBus.Properties", "PropertiesChanged", "sa{sv}as",
        dbus::kManager.interface, 1, dbus::kServerStateProperty, "s", "Forged", 0);
  sd_bus_call_method(opened, dbus::kBusService, dbus::kBusPath, dbus::kBusService, "GetId", nullptr,
                     nullptr, nullptr);  // the bus has passed them on

  EXPECT_EQ(performAndWait("Any", reply).status, 0);
  service.setState("Stopping");
  EXPECT_EQ(states.next(), "Stopping");
}

/// Keeps questions until they are answered one by one.
class Questions {
 public:
  ScriptedService::Script keep() {
    return [this](sd_bus_message* question) {
      kept.put(std::shared_ptr<sd_bus_message>(sd_bus_message_ref(question), sd_bus_message_unref));
    };
  }

  /// Has `service` answer the next question.
  void answer(ScriptedService& service, const std::string& state) {
    service.run([question = kept.next().value(), state]() mutable {
      sd_bus_reply_method_return(question.get(), "v", "s", state.c_str());
      question.reset();
    });
  }

  [[nodiscard]] bool isEmpty() { return !kept.next(std::chrono::milliseconds(100)); }

 private:
  Mailbox<std::shared_ptr<sd_bus_message>> kept;
};

TEST_F(ManagerClientTest, TheStateIsHeardWhateverElseIsAnnounced) {
  bus.start();
  Questions questions;
  ScriptedService service(dbus::kManager, kSilent, "", questions.keep());
  connect();
  watch();
  service.announce("Other", "value");
  service.announce("Other", std::nullopt);
  service.announce(dbus::kServerStateProperty, std::nullopt);
  questions.answer(service, "Starting");
  EXPECT_EQ(states.next(), "Starting");
  EXPECT_TRUE(questions.isEmpty());
  service.announce(dbus::kServerStateProperty, std::nullopt);
  questions.answer(service, "Started");
  EXPECT_EQ(states.next(), "Started");
}

TEST_F(ManagerClientTest, AHandoverIsAServiceThatGoesAndOneThatComes) {
  bus.start();
  const ScriptedService first(dbus::kManager, kSilent);
  connect();
  watch();
  EXPECT_EQ(states.next(), "Started");
  Questions questions;
  ScriptedService second(dbus::kManager, ScriptedService::reply("isv", -7, "", "s", ""), "",
                         questions.keep());
  EXPECT_EQ(states.next(), kst::kServerStateStopped);
  perform("Any");
  questions.answer(second, "Starting");
  EXPECT_EQ(states.next(), "Starting");
  const std::optional<Outcome> outcome = outcomes.next();
  ASSERT_TRUE(outcome);
  EXPECT_EQ(outcome->first.status, -7);
}

TEST_F(ManagerClientTest, WithoutDescriptorsThereIsNoBus) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer needs descriptors for its own checks";
#endif
  bus.start();
  const ScriptedService service(dbus::kManager, kSuccess);
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  for (rlim_t spare = 0; spare < 8; ++spare) {
    SCOPED_TRACE(spare);
    const int next = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(next);
    const rlimit few{static_cast<rlim_t>(next) + spare, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
    connect();
    watch();
    EXPECT_TRUE(states.next());
    MessageValue reply;
    const std::int32_t status = performAndWait("Any", reply).status;
    EXPECT_TRUE(status == kst::kResultManagerNotRunning || (status == 0 && spare > 3)) << status;
    manager.reset();
    setrlimit(RLIMIT_NOFILE, &before);
  }
}

std::set<int> eventLoops() {
  std::set<int> found;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry, gone).string().ends_with("[eventpoll]")) {
      found.insert(std::stoi(entry.path().filename()));
    }
  }
  return found;
}

TEST_F(ManagerClientTest, ALoopThatCannotGoOnAnswersEveryCall) {
  bus.start();
  Mailbox<bool> received;
  const ScriptedService service(dbus::kManager, [&](sd_bus_message*) { received.put(true); });
  const std::set<int> others = eventLoops();
  connect();
  watch();
  EXPECT_EQ(states.next(), "Started");
  perform("Any");
  ASSERT_TRUE(received.next());
  for (const int loop : eventLoops()) {
    if (!others.contains(loop)) {
      dup3(STDIN_FILENO, loop, O_CLOEXEC);
    }
  }
  for (int i = 0; i < 3; ++i) {
    MessageValue reply;
    EXPECT_NE(performAndWait("Any", reply).status, 0);
  }
  EXPECT_TRUE(outcomes.next());
  EXPECT_EQ(states.next(), kst::kServerStateStopped);
}

TEST_F(ManagerClientTest, EndsWithAFrozenBus) {
  bus.start();
  const ScriptedService service(dbus::kManager, kSilent);
  connect();
  watch();
  EXPECT_EQ(states.next(), "Started");
  bus.freeze();
  kst::client::PerformCommand(
      manager, "Any", [](const CommandResult&, const MessageValue&) {},
      dictOf("more than a socket takes", std::string(10'000'000, 'x')));
  auto ended = std::async(std::launch::async, [&] { manager.reset(); });
  if (ended.wait_for(std::chrono::seconds(10)) == std::future_status::timeout) {
    ADD_FAILURE() << "the client waits for the bus";
    bus.kill();
  }
}

TEST_F(ManagerClientTest, EventsFollowTheService) {
  bus.start();
  std::optional<ScriptedService> service(std::in_place, dbus::kManager, kSilent, "Starting");
  connect();
  kst::client::RegisterEventHandler(manager, "Other",
                                    [](const MessageValue&, const TaskGroup&) { ADD_FAILURE(); });
  watch(false);
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

  std::promise<void> gate;
  queue.submit([&] { gate.get_future().wait(); });
  service->setState("never delivered");
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  kst::client::EventsOff(manager);
  gate.set_value();
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
  EXPECT_EQ(states.next(), kst::kServerStateStopped);
  for (int round = 0; round < 2; ++round) {
    bus.start();
    const ScriptedService service(dbus::kManager, kSuccess);
    EXPECT_EQ(states.next(), "Started");
    MessageValue reply;
    EXPECT_EQ(performAndWait("Any", reply).status, 0);
    bus.kill();
    EXPECT_EQ(states.next(), kst::kServerStateStopped);
    EXPECT_EQ(performAndWait("Any", reply).status, kst::kResultManagerNotRunning);
  }
}

}  // namespace
