#include "platform/client/ManagerClient.h"

#include <atomic>
#include <future>
#include <set>

#include "tests/platform/bus/Mailbox.h"
#include "tests/platform/bus/PrivateBus.h"
#include "tests/platform/bus/ScriptedService.h"
#include "tests/platform/bus/SilentBus.h"

namespace {

using std::chrono::milliseconds;

MessageDict dictOf(const std::string& key, MessageValue value) {
  MessageDict dict;
  dict.set(key, std::move(value));
  return dict;
}

thread_local bool isQueueThread = false;

class ManagerClientTest : public testing::Test {
 protected:
  ManagerClientTest() {
    queue.submit([] { isQueueThread = true; });
  }

  /// Ends what still calls back into the test.
  void TearDown() override {
    manager.reset();
    Mailbox<bool> drained;
    queue.submit([&] { drained.put(true); });
    drained.next();
  }

  void connect() {
    manager = kst::client::CreateManager("test", queue);
    kst::client::RegisterEventHandler(
        manager, kst::kEventServerStateChange,
        [this](const MessageValue& payload, const TaskGroup& /*group*/) {
          const std::string state = payload.dictionary()->text(kst::kKeyServerState, "no text");
          isStopped = state == kst::kServerStateStopped;
          states.put(state);
        });
  }

  /// The status of a command, whose reply is in `reply`.
  std::int32_t performAndWait(const std::string& command = "Any") {
    reply = "old";
    return kst::client::PerformCommand(manager, command, {}, reply).status;
  }

  void perform(const MessageDict& request = {}) {
    kst::client::PerformCommand(
        manager, "Any",
        [this](const CommandResult& result, const MessageValue& /*reply*/) {
          statuses.put(result.status);
        },
        request);
  }

  /// Starts a bus and a service that answers nothing, and watches it.
  void begin() {
    bus.start();
    service.emplace(dbus::kManager, [this](sd_bus_message* call) {
      const char* client = "";
      const char* command = "";
      sd_bus_message_read(call, "ss", &client, &command);
      EXPECT_EQ(client + std::string(" ") + command, "test Any");
      EXPECT_EQ(sd_bus_message_get_auto_start(call), 0);
      received.put(sd_bus_message_get_sender(call));
    });
    connect();
    kst::client::EventsOn(manager);
    EXPECT_EQ(states.next(), "Started");
  }

  PrivateBus bus;
  Mailbox<std::string> received;  ///< who calls the service
  std::optional<ScriptedService> service;
  Mailbox<std::int32_t> statuses;
  Mailbox<std::string> states;
  std::atomic<bool> isStopped = false;
  TaskQueue queue = TaskQueue::create("test.queue");
  std::shared_ptr<ManagerClient> manager;
  MessageValue reply;
};

const ScriptedService::Script kSilent = [](sd_bus_message*) {};

TEST_F(ManagerClientTest, EveryAnswerBecomesAStatusAndAReply) {
  using Service = ScriptedService;
  constexpr auto error = [](const char* name) {
    return [=](sd_bus_message* call) { sd_bus_reply_method_errorf(call, name, "no"); };
  };
  const std::string huge(8'000'000, 'x');
  MessageDict nested = dictOf("deep", {});
  nested.set("k", "r");
  const struct {
    const char* name;
    Service::Script script;
    std::int32_t status;
    MessageValue reply;
  } cases[] = {
      {"dictionary", Service::reply("isv", 0, "", "a{sv}", 1, "k", "s", "r"), 0, dictOf("k", "r")},
      {"twice",
       [](sd_bus_message* call) {
         sd_bus_reply_method_return(call, "isv", 0, "", "s", "first");
         sd_bus_reply_method_return(call, "isv", 0, "", "s", "second");
       },
       0, "first"},
      {"huge", Service::reply("isv", 0, "", "s", huge.c_str()), 0, huge},
      {"nested",
       Service::reply("isv", 0, "", "a{sv}", 2, "deep", "v", "v", "v", "v", "v", "v", "v", "v", "v",
                      "v", "v", "v", "v", "v", "s", "bottom", "k", "s", "r"),
       0, nested},
      {"the service's own status", Service::reply("isv", -7, "why", "s", "r"), -7, "r"},
      {"absent by its own word", Service::reply("isv", kst::kResultManagerNotRunning, "", "s", "r"),
       kst::kResultManagerNotRunning, "r"},
      {"another that is absent", error(SD_BUS_ERROR_SERVICE_UNKNOWN), kst::kResultCallFailed, {}},
      {"wrong types", Service::reply("ssv", "0", "", "s", ""), kst::kResultMalformedReply, {}},
      {"nothing", Service::reply(""), kst::kResultMalformedReply, {}},
      {"denied", error(SD_BUS_ERROR_ACCESS_DENIED), kst::kResultAccessDenied, {}},
      {"unknown method", error(SD_BUS_ERROR_UNKNOWN_METHOD), kst::kResultCallFailed, {}}};
  bus.start();
  connect();
  for (const auto& test : cases) {
    SCOPED_TRACE(test.name);
    service.emplace(dbus::kManager, test.script);
    EXPECT_EQ(performAndWait(kst::kCommandGetTraceProperty), test.status);
    EXPECT_EQ(reply, test.reply);
  }
}

TEST_F(ManagerClientTest, LostReplyCallsBackOnceOnTheQueueWhenTheStateIsTold) {
  const std::pair<const char*, std::function<void()>> losses[] = {
      {"the service goes", [&] { service.reset(); }},
      {"the bus goes", [&] { bus.kill(); }},
      {"the client goes", [&] { manager.reset(); }}};
  for (const auto& [name, lose] : losses) {
    SCOPED_TRACE(name);
    bus.kill();
    service.reset();
    begin();
    Mailbox<std::string> heard;
    const auto hear = [&](const std::string& what) {
      heard.put(what + (isQueueThread ? "" : " elsewhere"));
    };
    std::shared_ptr<void> token(nullptr, [&](void*) { hear("destroyed"); });
    kst::client::PerformCommand(
        manager, "Any",
        [&, token = std::move(token)](const CommandResult& result, const MessageValue& value) {
          hear(std::to_string(result.status) + (value.isNull() ? "" : " reply") +
               (isStopped ? " stopped" : ""));
        },
        {});
    ASSERT_TRUE(received.next());
    std::future<void> blocked;
    if (name != losses[2].first) {  // a call that waits keeps the client
      blocked = std::async(std::launch::async, [this] {
        EXPECT_EQ(performAndWait(), kst::kResultReplyLost);
        EXPECT_TRUE(isStopped);
      });
      ASSERT_TRUE(received.next());
    }
    lose();
    const std::string lost = std::to_string(kst::kResultReplyLost);
    EXPECT_EQ(heard.next(), blocked.valid() ? lost + " stopped" : lost);
    EXPECT_EQ(heard.next(), "destroyed");
    EXPECT_FALSE(heard.next(milliseconds(0))) << "called twice";
    if (blocked.valid()) {
      blocked.wait();
      EXPECT_EQ(states.next(), kst::kServerStateStopped);
    }
  }
}

TEST_F(ManagerClientTest, WhoNeverAnswersIsNotWaitedForLong) {
  SilentBus silent;
  std::vector<std::shared_ptr<ManagerClient>> clients;
  for (int answers = 0; answers <= SilentBus::kMostAnswers; ++answers) {
    connect();
    perform();
    EXPECT_TRUE(silent.taken.next());
    clients.push_back(manager);
  }
  // All but the last try again, once.
  for (int retry = 0; retry < SilentBus::kMostAnswers; ++retry) {
    EXPECT_TRUE(silent.taken.next());
  }
  EXPECT_FALSE(silent.taken.next(milliseconds(500)));
  std::multiset<std::int32_t> heard;
  std::multiset<std::int32_t> heardLater;
  for (const auto& client : clients) {
    heard.insert(statuses.next().value_or(0));
    // Whoever asks again does not wait again.
    const auto start = std::chrono::steady_clock::now();
    manager = client;
    heardLater.insert(performAndWait());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  }
  constexpr std::int32_t kNone = kst::kResultManagerNotRunning;
  const std::multiset<std::int32_t> expected{kNone, kNone, kNone, kNone, kst::kResultCallFailed};
  EXPECT_EQ(heard, expected);
  EXPECT_EQ(heardLater, expected);
}

TEST_F(ManagerClientTest, ABusThatHangsUpIsTriedAgainNowAndThen) {
  SilentBus silent(true);
  connect();
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 4; ++i) {
    EXPECT_TRUE(silent.taken.next());
  }
  EXPECT_GT(std::chrono::steady_clock::now() - start, milliseconds(500));
}

TEST_F(ManagerClientTest, NobodyElseIsBelieved) {
  begin();
  perform();
  const std::string client = received.next().value_or("");
  const dbus::BusPtr forger = PrivateBus::connect();
  forge(forger, client.c_str(), dbus::kBusPath, dbus::kBusService, "NameOwnerChanged", "sss",
        dbus::kManager.service, ":1.0", "");
  forge(forger, client.c_str(), dbus::kManager.path, "org.freedesktop.DBus.Properties",
        "PropertiesChanged", "sa{sv}as", dbus::kManager.interface, 1, dbus::kServerStateProperty,
        "s", "Forged", 0);
  sd_bus_call_method(forger.get(), dbus::kBusService, dbus::kBusPath, dbus::kBusService, "GetId",
                     nullptr, nullptr, nullptr);  // the bus has passed them on
  service->setState("Stopping");
  EXPECT_EQ(states.next(), "Stopping");
}

TEST_F(ManagerClientTest, AHandoverIsAServiceThatGoesAndOneThatComes) {
  begin();
  Mailbox<std::shared_ptr<sd_bus_message>> questions;
  std::optional<ScriptedService> second;
  const auto replace = [&] {
    second.emplace(
        dbus::kManager,
        [this](sd_bus_message* call) {
          received.put("");
          sd_bus_reply_method_return(call, "isv", -7, "", "s", "");
        },
        "",
        [&](sd_bus_message* question) {
          questions.put({sd_bus_message_ref(question), sd_bus_message_unref});
        });
    EXPECT_EQ(states.next(), kst::kServerStateStopped);
  };
  std::shared_ptr<sd_bus_message> question;
  const auto awaitQuestion = [&] { question = questions.next().value_or(nullptr); };
  const auto answerWith = [&](const char* state) {
    second->run([asked = std::move(question), state]() mutable {
      sd_bus_reply_method_return(asked.get(), "v", "s", state);
      asked.reset();
    });
    EXPECT_EQ(states.next(), state);
  };
  replace();
  awaitQuestion();
  perform();
  second->setState(std::nullopt);
  answerWith("Starting");
  EXPECT_EQ(statuses.next(), -7);
  EXPECT_TRUE(received.next());
  EXPECT_FALSE(questions.next(milliseconds(100))) << "asks for what it is being told";
  second->setState(std::nullopt);
  awaitQuestion();
  answerWith("Started");

  // What was not sent in time is not sent later, and a question dies with the service.
  replace();
  awaitQuestion();
  perform();
  EXPECT_EQ(statuses.next(), kst::kResultCallFailed);
  answerWith("Started");
  EXPECT_FALSE(received.next(milliseconds(100)));
  second->setState(std::nullopt);
  awaitQuestion();
  second.reset();
  EXPECT_EQ(states.next(), kst::kServerStateStopped);
  EXPECT_FALSE(states.next(milliseconds(100)));
}

TEST_F(ManagerClientTest, ALoopThatCannotGoOnAnswersEveryCall) {
  begin();
  const int loop = open("/dev/null", O_RDONLY | O_CLOEXEC);
  close(loop);  // its number is the next one's
  connect();
  kst::client::EventsOn(manager);
  EXPECT_EQ(states.next(), "Started");
  perform();
  ASSERT_TRUE(received.next());
  dup3(STDIN_FILENO, loop, O_CLOEXEC);
  for (int i = 0; i < 3; ++i) {
    EXPECT_NE(performAndWait(), 0);
  }
  EXPECT_TRUE(statuses.next());
  EXPECT_EQ(states.next(), kst::kServerStateStopped);
}

TEST_F(ManagerClientTest, EndsWithAFrozenBus) {
  begin();
  bus.freeze();
  perform(dictOf("more than a socket takes", std::string(8'000'000, 'x')));
  manager.reset();
}

TEST_F(ManagerClientTest, EventsFollowTheServiceAndTheBus) {
  bus.start();
  service.emplace(dbus::kManager, kSilent, "Starting");
  connect();
  kst::client::RegisterEventHandler(manager, "Other",
                                    [](const MessageValue&, const TaskGroup&) { ADD_FAILURE(); });
  EXPECT_FALSE(states.next(milliseconds(100))) << "events are off at first";
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
  std::this_thread::sleep_for(milliseconds(100));
  kst::client::EventsOff(manager);
  gate.set_value();
  service->setState("Stopping");
  EXPECT_FALSE(states.next(milliseconds(100)));
  kst::client::EventsOn(manager);
  EXPECT_EQ(states.next(), "Stopping");

  bus.kill();
  EXPECT_EQ(states.next(), kst::kServerStateStopped);
  EXPECT_EQ(performAndWait(), kst::kResultManagerNotRunning);
  EXPECT_TRUE(reply.isNull());
  EXPECT_EQ(performAndWait(kst::kCommandGetTraceProperty), 0);
  EXPECT_EQ(reply, MessageValue(MessageDict()));
  bus.start();
  service.emplace(dbus::kManager, kSilent);
  EXPECT_EQ(states.next(), "Started");
}

}  // namespace
