#include "platform/dbus/Service.h"

#include <memory>

#include "platform/dbus/BlockingCall.h"
#include "platform/dbus/MessageCodec.h"
#include "tests/platform/bus/Mailbox.h"
#include "tests/platform/bus/PrivateBus.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using Call = std::shared_ptr<dbus::PerformCall>;
using Statuses = std::vector<std::int32_t>;

/// A connection that says what it likes to the manager.
class Client {
 public:
  /// Sends a call without waiting.
  void send(const std::string& name) {
    dbus::MessagePtr call;
    dbus::makeCall(bus.get(), dbus::kManager, {"test", 0, name, {}}, call);
    const auto answered = [](sd_bus_message* answer, void* self, sd_bus_error*) {
      std::optional<MessageValue> reply;
      static_cast<Client*>(self)->statuses.push_back(
          dbus::readReply(answer, dbus::kManager, reply).status);
      return 0;
    };
    sd_bus_call_async(bus.get(), nullptr, call.get(), answered, this, UINT64_MAX);
  }

  /// The statuses of what was sent, once there are as many.
  const Statuses& answers(std::size_t count) {
    const auto deadline = steady_clock::now() + seconds(20);
    while (statuses.size() < count && steady_clock::now() < deadline) {
      if (sd_bus_process(bus.get(), nullptr) == 0) {
        sd_bus_wait(bus.get(), 100'000);
      }
    }
    return statuses;
  }

  /// Waits until the bus has passed on what was sent before.
  void settle() const {
    for (int round = 0; round < 2; ++round) {
      sd_bus_call_method(bus.get(), dbus::kBusService, dbus::kBusPath, dbus::kBusService, "GetId",
                         nullptr, nullptr, nullptr);
    }
  }

  /// Says to the service that `other` has left the bus.
  void forgeLossOf(const Client& other) const {
    const char* name = "";
    sd_bus_get_unique_name(other.bus.get(), &name);
    forge(bus, dbus::kManager.service, dbus::kBusPath, dbus::kBusService, "NameOwnerChanged", "sss",
          name, name, "");
  }

  void leave() { sd_bus_flush_close_unref(bus.release()); }

 private:
  dbus::BusPtr bus = PrivateBus::connect();
  Statuses statuses;
};

/// The manager's end of the bus. Calls wait until `run`, and then go to `handler`.
class ServiceTest : public testing::Test {
 protected:
  ServiceTest() {
    bus.start();
    const auto perform = [this](Call call) { handler(std::move(call)); };
    service.emplace(loop, dbus::kManager, perform, [] {});
  }
  ~ServiceTest() override { end(); }

  void run() {
    thread = std::thread([this] { loop.run(); });
  }

  /// Ends the loop and then the service, as a program does.
  void end() {
    if (thread.joinable()) {
      loop.stop();
      thread.join();
    }
    service.reset();
  }

  /// Sends a call; what comes of it at the service, or nothing.
  Call receivedFrom(Client& caller) {
    caller.send("Any");
    caller.settle();
    return calls.next().value_or(nullptr);
  }

  PrivateBus bus;
  dbus::EventLoop loop;
  std::optional<dbus::Service> service;
  std::thread thread;
  Mailbox<Call> calls;
  std::function<void(Call call)> handler = [this](Call call) { calls.put(std::move(call)); };
};

/// A request with so many entries, the last of which is a text of this length.
MessageDict request(int entries, const std::string& lastKey, std::size_t length) {
  MessageDict dict;
  for (int i = 1; i < entries; ++i) {
    dict.set(std::to_string(i), true);
  }
  dict.set(lastKey, std::string(length, 'x'));
  return dict;
}

TEST_F(ServiceTest, RequestsMayBeSoLargeAndAnswersHaveAnyText) {
  constexpr std::size_t kLimit = 65'536;
  const CommandResult tooMany{kst::kResultInvalidRequest, "the request has more than 64 entries"};
  const CommandResult tooLong{kst::kResultInvalidRequest,
                              "the request has more than 65536 bytes of text"};
  const std::pair<MessageDict, CommandResult> cases[] = {
      {request(64, "k", 1), {-7, "k"}},         {request(65, "k", 1), tooMany},
      {request(1, "k", kLimit - 3), {-7, "k"}}, {request(1, "k", kLimit - 2), tooLong},
      {request(1, "/café", 1), {-7, "/café"}},  {request(1, "broken", 1), {-7, "/caf?"}}};
  handler = [](const Call& call) {
    const std::string& key = call->command.request.entries().back().first;
    call->answer({-7, key == "broken" ? "/caf\xe9" : key});
  };
  run();
  for (const auto& [sent, expected] : cases) {
    std::optional<MessageValue> reply;
    const CommandResult result =
        dbus::callBlocking(dbus::kManager, {"c", 0, "n", sent}, seconds(20), reply);
    EXPECT_EQ(result.status, expected.status) << expected.text;
    EXPECT_EQ(result.text, expected.text);
    EXPECT_EQ(reply, MessageValue(MessageDict()));
  }
}

TEST_F(ServiceTest, OnlyTheBusTellsWhetherACallerHasLeft) {
  Client early;
  early.send("Any");
  early.settle();
  early.leave();
  Client other;
  other.settle();
  run();
  const Call left = calls.next().value_or(nullptr);
  ASSERT_TRUE(left);
  EXPECT_TRUE(left->callerHasLeft());
  EXPECT_EQ(left->caller.user, static_cast<uid_t>(-1));
  EXPECT_EQ(left->caller.process, -1);
  left->answer({});

  for (const bool leaves : {false, true}) {
    SCOPED_TRACE(leaves);
    Client caller;
    const Call call = receivedFrom(caller);
    ASSERT_TRUE(call);
    EXPECT_EQ(call->caller.user, getuid());
    EXPECT_EQ(call->caller.process, getpid());
    EXPECT_FALSE(call->callerHasLeft());
    other.forgeLossOf(caller);
    Client().leave();
    if (leaves) {
      caller.leave();
    }
    other.settle();
    EXPECT_TRUE(receivedFrom(other));  // and what was sent before
    EXPECT_EQ(call->callerHasLeft(), leaves);
    call->answer({-7, ""});
    if (!leaves) {
      EXPECT_EQ(caller.answers(1), Statuses{-7});
    }
  }
}

TEST_F(ServiceTest, AFrozenBusHoldsNobodyUp) {
  constexpr int kMayWait = 64;
  constexpr int kTooMany = 6;
  Client caller;
  for (int i = 0; i < kMayWait + kTooMany; ++i) {
    caller.send(std::to_string(i));
  }
  caller.settle();
  bus.freeze();
  run();
  const auto start = steady_clock::now();
  EXPECT_THROW(dbus::Service(loop, dbus::kHelper, {}, {}), std::system_error);
  for (int i = 0; i < kMayWait; ++i) {
    const Call call = calls.next().value_or(nullptr);
    ASSERT_TRUE(call);
    EXPECT_EQ(call->command.name, std::to_string(i));
    EXPECT_EQ(call->caller.user, static_cast<uid_t>(-1));
    call->answer({});
  }
  EXPECT_LT(steady_clock::now() - start, seconds(20));
  bus.thaw();
  Statuses expected(kTooMany, kst::kResultBusy);
  expected.resize(kMayWait + kTooMany, 0);
  EXPECT_EQ(caller.answers(kMayWait + kTooMany), expected);

  bus.freeze();
  loop.post([&] {
    for (int i = 0; i < 30; ++i) {
      service->setServerState(std::string(1'000'000, 'x'));  // more than the socket takes
    }
  });
  end();
}

TEST_F(ServiceTest, WhatIsAnsweredBeforeTheServiceGoesArrives) {
  run();
  Client caller;
  const Call early = receivedFrom(caller);
  const Call late = receivedFrom(caller);
  ASSERT_TRUE(early && late);
  std::string large;
  large.resize(20'000'000, 'x');
  early->answer({-7, ""}, large);  // more than the socket takes
  loop.post([&] { service.reset(); });
  late->answer({});
  end();
  EXPECT_EQ(caller.answers(2), (Statuses{-7, kst::kResultReplyLost}));
}

TEST(EventLoopTest, DelayedWorkRunsInOrderAndGoes) {
  dbus::EventLoop loop;
  std::string order;
  const auto held = std::make_shared<bool>();
  loop.after(milliseconds(30), [&] {
    order += held.use_count() == 1 ? "c" : "held";
    loop.stop();
  });
  loop.after(milliseconds(10), [&] { order += "b"; });
  loop.after(milliseconds(0), [&, held] {
    order += "a";
    loop.after(std::chrono::hours(1), [&] { order += "d"; });
  });
  loop.run();
  EXPECT_EQ(order, "abc");
}

}  // namespace
