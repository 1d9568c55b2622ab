#include "platform/dbus/Service.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "platform/dbus/MessageCodec.h"
#include "platform/dbus/SdBus.h"
#include "tests/platform/bus/Mailbox.h"
#include "tests/platform/bus/PrivateBus.h"

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;
using Call = std::shared_ptr<dbus::PerformCall>;
using Statuses = std::vector<std::int32_t>;

/// A connection that says what it likes to the manager.
class Client {
 public:
  using Fill = std::function<void(sd_bus_message* call)>;

  Client() {
    sd_bus* opened = nullptr;
    if (sd_bus_open_system(&opened) < 0) {
      throw std::runtime_error("no connection to the bus");
    }
    bus.reset(opened);
  }

  [[nodiscard]] dbus::MessagePtr call(const dbus::Command& command) const {
    dbus::MessagePtr made;
    dbus::makeCall(bus.get(), dbus::kManager, command, made);
    return made;
  }

  /// A call whose request has the entries that `fill` appends.
  [[nodiscard]] dbus::MessagePtr call(const Fill& fill) const {
    sd_bus_message* made = nullptr;
    sd_bus_message_new_method_call(bus.get(), &made, dbus::kManager.service, dbus::kManager.path,
                                   dbus::kManager.interface, "Perform");
    sd_bus_message_append(made, "ss", "test", "Any");
    sd_bus_message_open_container(made, 'a', "{sv}");
    fill(made);
    sd_bus_message_close_container(made);
    return dbus::MessagePtr(made);
  }

  /// Sends a call without waiting.
  void send(const dbus::MessagePtr& call) {
    const auto answered = [](sd_bus_message* message, void* self, sd_bus_error*) {
      auto& client = *static_cast<Client*>(self);
      client.result = dbus::readReply(message, dbus::kManager, client.reply);
      client.statuses.push_back(client.result.status);
      return 0;
    };
    sd_bus_call_async(bus.get(), nullptr, call.get(), answered, this, UINT64_MAX);
  }

  void send(const std::string& name) { send(call({"test", 0, name, {}})); }

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
    sd_bus_message* made = nullptr;
    sd_bus_message_new_signal(bus.get(), &made, dbus::kBusPath, dbus::kBusService,
                              "NameOwnerChanged");
    const dbus::MessagePtr signal(made);
    sd_bus_message_append(made, "sss", name, name, "");
    sd_bus_send_to(bus.get(), made, dbus::kManager.service, nullptr);
  }

  void leave() { sd_bus_flush_close_unref(bus.release()); }

  CommandResult result;               ///< of the last answer
  std::optional<MessageValue> reply;  ///< of the last answer

 private:
  dbus::BusPtr bus;
  Statuses statuses;
};

/// The manager's end of the bus.
class ServiceTest : public testing::Test {
 protected:
  ServiceTest() { bus.start(); }
  ~ServiceTest() override { end(); }

  /// Takes a place on the bus. Calls wait until `run`; without a handler they go to the test.
  void open(dbus::Service::Handler handler = {}) {
    service.emplace(
        loop, dbus::kManager,
        handler ? std::move(handler) : [this](Call call) { calls.put(std::move(call)); },
        [this] { lost = true; });
  }

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
  std::atomic<bool> lost = false;
};

/// Entries with a key of their own each, or all with the same one.
Client::Fill entries(int count, const char* key = nullptr) {
  return [=](sd_bus_message* call) {
    for (int i = 0; i < count; ++i) {
      sd_bus_message_append(call, "{sv}", key ? key : std::to_string(i).c_str(), "x",
                            std::int64_t{i});
    }
  };
}

Client::Fill bytes(std::size_t count) {
  return [=](sd_bus_message* call) {
    sd_bus_message_open_container(call, 'e', "sv");
    sd_bus_message_append(call, "s", "k");
    sd_bus_message_open_container(call, 'v', "ay");
    sd_bus_message_append_array(call, 'y', std::string(count, 'x').c_str(), count);
    sd_bus_message_close_container(call);
    sd_bus_message_close_container(call);
  };
}

dbus::Command command(const std::string& client, const std::string& name, const std::string& key,
                      MessageValue value) {
  MessageDict request;
  request.set(key, std::move(value));
  return {client, 0, name, std::move(request)};
}

/// Dictionaries in dictionaries; the innermost holds `inside` entries.
dbus::Command nested(int levels, int inside) {
  MessageDict dict;
  for (int i = 0; i < inside; ++i) {
    dict.set(std::to_string(i), true);
  }
  for (int i = 1; i < levels; ++i) {
    MessageDict outer;
    outer.set("d", std::move(dict));
    dict = std::move(outer);
  }
  return command("test", "Any", "d", std::move(dict));
}

TEST_F(ServiceTest, RequestsAreReadAsFarAsTheyMayBeLarge) {
  constexpr std::size_t kLimit = 65'536;
  const std::string half(kLimit / 2, 'x');
  const auto tooLarge = [](const std::string& what) {
    return CommandResult{kst::kResultInvalidRequest, "the request has more than " + what};
  };
  const CommandResult tooMany = tooLarge("64 entries");
  const CommandResult tooLong = tooLarge("65536 bytes of text");
  const CommandResult fine{0, "k"};  // the last key that was read
  Client client;
  const struct {
    const char* name;
    dbus::MessagePtr call;
    CommandResult result;
  } cases[] = {
      {"as many entries as may be", client.call(entries(64)), {0, "63"}},
      {"one more", client.call(entries(65)), tooMany},
      {"one key that often", client.call(entries(64, "k")), fine},
      {"one key more often", client.call(entries(65, "k")), tooMany},
      {"many more", client.call(entries(150'000)), tooMany},
      {"as many, nested", client.call(nested(2, 62)), {0, "d"}},
      {"one more, nested", client.call(nested(2, 63)), tooMany},
      {"as deep as the bus allows", client.call(nested(20, 1)), {0, "d"}},
      {"as long as may be", client.call(command("c", "n", "k", std::string(kLimit - 3, 'x'))),
       fine},
      {"one byte more", client.call(command("c", "n", "k", std::string(kLimit - 2, 'x'))), tooLong},
      {"many more bytes", client.call(command("", "", "", std::string(2'000'000, 'x'))), tooLong},
      {"a long command", client.call({"", 0, half + half + "x", {}}), tooLong},
      {"a long client and a long key", client.call(command(half, "C", half, true)), tooLong},
      {"kinds that messages lack", client.call([](sd_bus_message* call) {
         sd_bus_message_append(call, "{sv}", "1", "d", 1.5);
         sd_bus_message_append(call, "{sv}", "2", "a(sv)", 2, "a", "s", "b", "c", "as", 0);
         sd_bus_message_append(call, "{sv}", "k", "as", 2, "a", "b");
       }),
       fine},
      {"long texts in such a kind", client.call([&](sd_bus_message* call) {
         sd_bus_message_append(call, "{sv}", "k", "as", 2, half.c_str(), half.c_str());
       }),
       tooLong},
      {"some bytes", client.call(bytes(60'000)), fine},
      {"many bytes", client.call(bytes(1'000'000)), tooLong},
  };
  open([](const Call& call) {
    const auto& read = call->command.request.entries();
    call->answer({0, read.empty() ? "" : read.back().first});
  });
  run();
  std::size_t sent = 0;
  for (const auto& test : cases) {
    SCOPED_TRACE(test.name);
    const auto start = steady_clock::now();
    client.send(test.call);
    ASSERT_EQ(client.answers(++sent).size(), sent);
    EXPECT_EQ(client.result.status, test.result.status);
    EXPECT_EQ(client.result.text, test.result.text);
    EXPECT_LT(steady_clock::now() - start, seconds(10));
  }
}

TEST_F(ServiceTest, AnswersOfAnyTextArrive) {
  const std::pair<const char*, const char*> cases[] = {{"/caf\xe9", "/caf?"}, {"/café", "/café"}};
  open();
  run();
  Client client;
  for (const auto& [text, arriving] : cases) {
    const Call call = receivedFrom(client);
    ASSERT_TRUE(call);
    call->answer({-7, text});
    client.answers(text == cases[0].first ? 1 : 2);
    EXPECT_EQ(client.result.status, -7);
    EXPECT_EQ(client.result.text, arriving);
    EXPECT_EQ(client.reply, MessageValue(MessageDict()));
  }
}

TEST_F(ServiceTest, OnlyTheBusTellsWhetherACallerHasLeft) {
  const struct {
    const char* name;
    std::function<void(Client& caller, const Client& other)> happens;
    bool left;
  } cases[] = {
      {"somebody says so",
       [](const Client& caller, const Client& other) { other.forgeLossOf(caller); }, false},
      {"somebody else leaves", [](Client&, const Client&) { Client().leave(); }, false},
      {"the caller leaves", [](Client& caller, const Client&) { caller.leave(); }, true},
  };
  open();
  run();
  Client other;
  for (const auto& test : cases) {
    SCOPED_TRACE(test.name);
    Client caller;
    const Call call = receivedFrom(caller);
    ASSERT_TRUE(call);
    EXPECT_EQ(call->caller.user, getuid());
    EXPECT_EQ(call->caller.process, getpid());
    EXPECT_FALSE(call->callerHasLeft());
    test.happens(caller, other);
    other.settle();
    EXPECT_TRUE(receivedFrom(other));  // and what was sent before
    EXPECT_EQ(call->callerHasLeft(), test.left);
    call->answer({-7, ""});
    if (!test.left) {
      EXPECT_EQ(caller.answers(1), Statuses{-7});
    }
  }
  EXPECT_FALSE(lost);
}

TEST_F(ServiceTest, ACallIsHandedOverWhenItsCallerHasLeftBefore) {
  open();
  Client caller;
  caller.send("Any");
  caller.settle();
  caller.leave();
  Client().settle();
  run();
  const Call call = calls.next().value_or(nullptr);
  ASSERT_TRUE(call);
  EXPECT_TRUE(call->callerHasLeft());
  EXPECT_EQ(call->caller.user, static_cast<uid_t>(-1));
  EXPECT_EQ(call->caller.process, -1);
  call->answer({});
  Client other;
  EXPECT_TRUE(receivedFrom(other));
}

TEST_F(ServiceTest, ABusThatDoesNotTellTheCallerHoldsNobodyUp) {
  constexpr int kMayWait = 64;
  constexpr int kTooMany = 6;
  open();
  Client caller;
  for (int i = 0; i < kMayWait + kTooMany; ++i) {
    caller.send(std::to_string(i));
  }
  caller.settle();
  bus.freeze();
  run();
  for (int i = 0; i < kMayWait; ++i) {
    const Call call = calls.next().value_or(nullptr);
    ASSERT_TRUE(call);
    EXPECT_EQ(call->command.name, std::to_string(i));
    EXPECT_EQ(call->caller.user, static_cast<uid_t>(-1));
    call->answer({});
  }
  bus.thaw();
  Statuses expected(kTooMany, kst::kResultBusy);
  expected.resize(kMayWait + kTooMany, 0);
  EXPECT_EQ(caller.answers(kMayWait + kTooMany), expected);
}

TEST_F(ServiceTest, EndsWithAFrozenBus) {
  open();
  bus.freeze();
  for (int i = 0; i < 30; ++i) {
    service->setServerState(std::string(1'000'000, 'x'));  // more than the socket takes
  }
  run();
  auto ended = std::async(std::launch::async, [&] { end(); });
  if (ended.wait_for(seconds(5)) == std::future_status::timeout) {
    ADD_FAILURE() << "the service waits for the bus";
    bus.kill();
  }
}

TEST_F(ServiceTest, WhatWasAnsweredBeforeTheEndArrives) {
  open();
  run();
  Client caller;
  const Call call = receivedFrom(caller);
  ASSERT_TRUE(call);
  std::string large;
  large.resize(20'000'000, 'x');
  call->answer({-7, ""}, large);  // more than the socket takes
  end();
  EXPECT_EQ(caller.answers(1), Statuses{-7});
}

TEST_F(ServiceTest, AnAnswerMayComeWhenTheServiceHasGone) {
  Call held;
  open([&](Call call) { held = std::move(call); });
  Client caller;
  caller.send("Any");
  caller.settle();
  while (!held) {
    sd_event_run(loop.native(), UINT64_MAX);
  }
  service.reset();
  held->answer({});
  EXPECT_GT(sd_event_run(loop.native(), 0), 0);
  EXPECT_EQ(caller.answers(1), Statuses{kst::kResultReplyLost});
}

TEST_F(ServiceTest, StartFailsWhenTheBusDoesNotAnswer) {
  bus.freeze();
  const auto start = steady_clock::now();
  EXPECT_THROW(open(), std::system_error);
  EXPECT_LT(steady_clock::now() - start, seconds(8));
}

TEST(EventLoopTest, DelayedWorkRunsInOrderAndGoes) {
  dbus::EventLoop loop;
  std::string order;
  const auto held = std::make_shared<bool>();
  loop.after(std::chrono::milliseconds(30), [&] {
    order += "c";
    EXPECT_EQ(held.use_count(), 1);
    loop.stop();
  });
  loop.after(std::chrono::milliseconds(10), [&] { order += "b"; });
  loop.after(std::chrono::milliseconds(0), [&, held] {
    order += "a";
    loop.after(std::chrono::hours(1), [&] { order += "d"; });
  });
  loop.run();
  EXPECT_EQ(order, "abc");
}

TEST(EventLoopTest, RunTellsThatItCannotWait) {
  dbus::EventLoop ended;
  ended.stop();
  ended.run();
  EXPECT_THROW(ended.run(), std::system_error);

  dbus::EventLoop broken;
  const int other = open("/dev/null", O_RDONLY | O_CLOEXEC);
  dup2(other, sd_event_get_fd(broken.native()));
  close(other);
  EXPECT_THROW(broken.run(), std::system_error);
}

}  // namespace
