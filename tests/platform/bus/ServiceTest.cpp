#include "platform/dbus/Service.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

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

/// The manager's end of the bus, served by a thread of its own.
class RunningService {
 public:
  explicit RunningService(dbus::Service::Handler handler)
      : service(std::in_place, loop, dbus::kManager, std::move(handler), [this] { lost = true; }),
        thread([this] { loop.run(); }) {}
  RunningService(const RunningService&) = delete;
  RunningService& operator=(const RunningService&) = delete;
  ~RunningService() { end(); }

  /// Ends the loop and then the service, as a program does.
  void end() {
    if (thread.joinable()) {
      loop.stop();
      thread.join();
      service.reset();
    }
  }

  /// Keeps the service's thread from everything until the promise is kept.
  std::promise<void> hold() {
    std::promise<void> release;
    std::promise<void> held;
    loop.post([&held, until = std::make_shared<std::future<void>>(release.get_future())] {
      held.set_value();
      until->wait();
    });
    held.get_future().wait();
    return release;
  }

  void setServerState(const std::string& state) {
    loop.post([this, state] { service->setServerState(state); });
  }

  std::atomic<bool> lost = false;

 private:
  dbus::EventLoop loop;
  std::optional<dbus::Service> service;
  std::thread thread;
};

/// A connection that says what it likes.
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

  [[nodiscard]] dbus::MessagePtr makeCall(const Fill& fill) const {
    sd_bus_message* call = nullptr;
    sd_bus_message_new_method_call(bus.get(), &call, dbus::kManager.service, dbus::kManager.path,
                                   dbus::kManager.interface, "Perform");
    dbus::MessagePtr owner(call);
    fill(call);
    return owner;
  }

  CommandResult perform(const Fill& fill, MessageValue& reply) const {
    const dbus::MessagePtr call = makeCall(fill);
    sd_bus_error error{};
    sd_bus_message* answer = nullptr;
    if (sd_bus_call(bus.get(), call.get(), 60'000'000, &error, &answer) < 0) {
      CommandResult result = dbus::resultOf(error, dbus::kManager);
      sd_bus_error_free(&error);
      return result;
    }
    const dbus::MessagePtr owner(answer);
    return dbus::readReply(answer, dbus::kManager, reply);
  }

  /// Sends a call without waiting; its status joins `statuses` when the answer is processed.
  void send(const std::string& command) {
    const dbus::MessagePtr call = makeCall([&](sd_bus_message* message) {
      sd_bus_message_append(message, "ssa{sv}", "test", command.c_str(), 0);
    });
    const auto answered = [](sd_bus_message* answer, void* self, sd_bus_error*) {
      MessageValue reply;
      static_cast<Client*>(self)->statuses.push_back(
          dbus::readReply(answer, dbus::kManager, reply).status);
      return 0;
    };
    sd_bus_call_async(bus.get(), nullptr, call.get(), answered, this, UINT64_MAX);
  }

  /// The statuses of calls that were sent, once there are as many.
  std::vector<std::int32_t> answers(std::size_t count) {
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

  /// The server state, read from the service: behind all that was sent before.
  [[nodiscard]] std::string serverState() const {
    char* text = nullptr;
    sd_bus_get_property_string(bus.get(), dbus::kManager.service, dbus::kManager.path,
                               dbus::kManager.interface, dbus::kServerStateProperty, nullptr,
                               &text);
    std::string state = text ? text : "";
    free(text);
    return state;
  }

  /// Says to the service that `name` has left the bus.
  void forgeLoss(const std::string& name) const {
    sd_bus_message* made = nullptr;
    sd_bus_message_new_signal(bus.get(), &made, dbus::kBusPath, dbus::kBusService,
                              "NameOwnerChanged");
    const dbus::MessagePtr signal(made);
    sd_bus_message_append(made, "sss", name.c_str(), name.c_str(), "");
    sd_bus_send_to(bus.get(), made, dbus::kManager.service, nullptr);
  }

  [[nodiscard]] std::string name() const {
    const char* unique = "";
    sd_bus_get_unique_name(bus.get(), &unique);
    return unique;
  }

  void leave() { sd_bus_flush_close_unref(bus.release()); }

 private:
  dbus::BusPtr bus;
  std::vector<std::int32_t> statuses;
};

class ServiceTest : public testing::Test {
 protected:
  ServiceTest() { bus.start(); }

  /// A handler that leaves its calls to the test.
  dbus::Service::Handler collect() {
    return [this](Call call) { calls.put(std::move(call)); };
  }

  PrivateBus bus;
  Mailbox<Call> calls;
};

/// Opens an entry of a dictionary, up to the contents of its variant.
void openEntry(sd_bus_message* call, const char* key, const char* type) {
  sd_bus_message_open_container(call, 'e', "sv");
  sd_bus_message_append(call, "s", key);
  sd_bus_message_open_container(call, 'v', type);
}

void closeEntry(sd_bus_message* call) {
  sd_bus_message_close_container(call);
  sd_bus_message_close_container(call);
}

Client::Fill request(const std::function<void(sd_bus_message* call)>& entries) {
  return [=](sd_bus_message* call) {
    sd_bus_message_append(call, "ss", "test", "Any");
    sd_bus_message_open_container(call, 'a', "{sv}");
    entries(call);
    sd_bus_message_close_container(call);
  };
}

Client::Fill manyEntries(int count, bool sameKey = false) {
  return request([=](sd_bus_message* call) {
    for (int i = 0; i < count; ++i) {
      sd_bus_message_append(call, "{sv}", sameKey ? "key" : std::to_string(i).c_str(), "x",
                            std::int64_t{i});
    }
  });
}

Client::Fill oneText(std::size_t bytes) {
  return request([=](sd_bus_message* call) {
    sd_bus_message_append(call, "{sv}", "k", "s", std::string(bytes, 'x').c_str());
  });
}

/// Dictionaries in dictionaries; the innermost holds `inside` entries.
Client::Fill nested(int levels, int inside) {
  return request([=](sd_bus_message* call) {
    for (int i = 0; i < levels; ++i) {
      openEntry(call, "d", "a{sv}");
      sd_bus_message_open_container(call, 'a', "{sv}");
    }
    for (int i = 0; i < inside; ++i) {
      sd_bus_message_append(call, "{sv}", "k", "b", 1);
    }
    for (int i = 0; i < levels; ++i) {
      sd_bus_message_close_container(call);
      closeEntry(call);
    }
  });
}

Client::Fill bytesAsValue(std::size_t count) {
  return request([=](sd_bus_message* call) {
    openEntry(call, "k", "ay");
    sd_bus_message_append_array(call, 'y', std::string(count, 'x').c_str(), count);
    closeEntry(call);
  });
}

TEST_F(ServiceTest, RequestsAreReadAsFarAsTheyMayBeLarge) {
  constexpr std::size_t kOther = sizeof "test" - 1 + sizeof "Any" - 1 + sizeof "k" - 1;
  const auto tooLarge = [](const std::string& what) {
    return CommandResult{kst::kResultInvalidRequest, "the request has more than " + what};
  };
  const CommandResult tooMany = tooLarge("64 entries");
  const CommandResult tooLong = tooLarge("65536 bytes of text");
  const CommandResult fine{0, "k"};  // the last key that was read
  struct Case {
    const char* name;
    Client::Fill fill;
    CommandResult result;
  };
  const Case cases[] = {
      {"as many entries as may be", manyEntries(64), {0, "63"}},
      {"one more", manyEntries(65), tooMany},
      {"one key that often", manyEntries(64, true), {0, "key"}},
      {"one key more often", manyEntries(65, true), tooMany},
      {"many more", manyEntries(150'000), tooMany},
      {"as many, nested", nested(2, 62), {0, "d"}},
      {"one more, nested", nested(2, 63), tooMany},
      {"as deep as the bus allows", nested(20, 1), {0, "d"}},
      {"as long a text as may be", oneText((1U << 16) - kOther), fine},
      {"one byte more", oneText((1U << 16) - kOther + 1), tooLong},
      {"many more bytes", oneText(2'000'000), tooLong},
      {"a long command",
       [](sd_bus_message* call) {
         sd_bus_message_append(call, "ssa{sv}", "", std::string(65'537, 'x').c_str(), 0);
       },
       tooLong},
      {"a long client and a long key",
       [](sd_bus_message* call) {
         const std::string half(1 << 15, 'x');
         sd_bus_message_append(call, "ssa{sv}", half.c_str(), "C", 1, half.c_str(), "b", 1);
       },
       tooLong},
      {"kinds that messages lack", request([](sd_bus_message* call) {
         sd_bus_message_append(call, "{sv}", "1", "d", 1.5);
         sd_bus_message_append(call, "{sv}", "2", "a(sv)", 2, "a", "s", "b", "c", "as", 0);
         sd_bus_message_append(call, "{sv}", "k", "as", 2, "a", "b");
       }),
       fine},
      {"long texts in a kind that messages lack", request([](sd_bus_message* call) {
         const std::string half(1 << 15, 'x');
         sd_bus_message_append(call, "{sv}", "k", "as", 2, half.c_str(), half.c_str());
       }),
       tooLong},
      {"some bytes", bytesAsValue(60'000), fine},
      {"many bytes", bytesAsValue(1'000'000), tooLong},
  };
  const RunningService service([](const Call& call) {
    const auto& entries = call->command.request.entries();
    call->answer({0, entries.empty() ? "" : entries.back().first}, call->command.request);
  });
  const Client client;
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    MessageValue reply;
    const auto start = steady_clock::now();
    const CommandResult result = client.perform(test.fill, reply);
    EXPECT_EQ(result.status, test.result.status);
    EXPECT_EQ(result.text, test.result.text);
    EXPECT_LT(steady_clock::now() - start, seconds(10));
  }
}

TEST_F(ServiceTest, AnswersOfAnyTextArrive) {
  const RunningService service([](const Call& call) {
    call->answer({-7, call->command.name == "malformed" ? "/logs/caf\xe9" : "/logs/café"});
  });
  const Client client;
  for (const auto& [command, text] :
       {std::pair("malformed", "/logs/caf?"), std::pair("well-formed", "/logs/café")}) {
    MessageValue reply;
    const CommandResult result = client.perform(
        [name = command](sd_bus_message* call) {
          sd_bus_message_append(call, "ssa{sv}", "", name, 0);
        },
        reply);
    EXPECT_EQ(result.status, -7);
    EXPECT_EQ(result.text, text);
    EXPECT_EQ(reply, MessageValue(MessageDict()));
  }
}

TEST_F(ServiceTest, OnlyTheBusTellsWhetherACallerHasLeft) {
  struct Case {
    const char* name;
    std::function<void(Client& caller, Client& other)> happens;
    bool left;
  };
  const Case cases[] = {
      {"nothing", [](Client&, Client&) {}, false},
      {"somebody says so", [](Client& caller, Client& other) { other.forgeLoss(caller.name()); },
       false},
      {"somebody else leaves", [](Client&, Client&) { Client().leave(); }, false},
      {"the caller leaves", [](Client& caller, Client&) { caller.leave(); }, true},
  };
  const RunningService service(collect());
  Client other;
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    Client caller;
    caller.send("Any");
    caller.settle();
    const std::optional<Call> call = calls.next();
    ASSERT_TRUE(call);
    EXPECT_EQ((*call)->caller.user, getuid());
    EXPECT_EQ((*call)->caller.process, getpid());
    EXPECT_FALSE((*call)->callerHasLeft());
    test.happens(caller, other);
    other.settle();
    EXPECT_EQ(other.serverState(), "Starting");
    EXPECT_EQ((*call)->callerHasLeft(), test.left);
    (*call)->answer({-7, ""});
    if (!test.left) {
      EXPECT_EQ(caller.answers(1), std::vector<std::int32_t>{-7});
    }
  }
  EXPECT_FALSE(service.lost);
}

TEST_F(ServiceTest, ACallIsHandedOverWhenItsCallerHasLeftBefore) {
  RunningService service(collect());
  std::promise<void> release = service.hold();
  Client caller;
  caller.send("Any");
  caller.settle();
  caller.leave();
  Client().settle();
  release.set_value();
  const std::optional<Call> call = calls.next();
  ASSERT_TRUE(call);
  EXPECT_TRUE((*call)->callerHasLeft());
  EXPECT_EQ((*call)->caller.user, static_cast<uid_t>(-1));
  EXPECT_EQ((*call)->caller.process, -1);
  (*call)->answer({});
  EXPECT_EQ(Client().serverState(), "Starting");
}

TEST_F(ServiceTest, ABusThatDoesNotTellTheCallerHoldsNobodyUp) {
  constexpr int kMayWait = 64;
  constexpr int kTooMany = 6;
  RunningService service(collect());
  std::promise<void> release = service.hold();
  Client caller;
  for (int i = 0; i < kMayWait + kTooMany; ++i) {
    caller.send(std::to_string(i));
  }
  caller.settle();
  bus.freeze();
  release.set_value();
  for (int i = 0; i < kMayWait; ++i) {
    const std::optional<Call> call = calls.next();
    ASSERT_TRUE(call);
    EXPECT_EQ((*call)->command.name, std::to_string(i));
    EXPECT_EQ((*call)->caller.user, static_cast<uid_t>(-1));
    (*call)->answer({});
  }
  bus.thaw();
  std::vector<std::int32_t> expected(kTooMany, kst::kResultBusy);
  expected.resize(kMayWait + kTooMany, 0);
  EXPECT_EQ(caller.answers(kMayWait + kTooMany), expected);
}

TEST_F(ServiceTest, EndsWithAFrozenBus) {
  RunningService service(collect());
  Client().settle();
  bus.freeze();
  for (int i = 0; i < 30; ++i) {
    service.setServerState(std::string(1'000'000, 'x'));  // more than the socket takes
  }
  auto ended = std::async(std::launch::async, [&] { service.end(); });
  if (ended.wait_for(seconds(5)) == std::future_status::timeout) {
    ADD_FAILURE() << "the service waits for the bus";
    bus.kill();
  }
}

TEST_F(ServiceTest, WhatWasAnsweredBeforeTheEndArrives) {
  RunningService service(collect());
  Client caller;
  caller.send("Any");
  caller.settle();
  const std::optional<Call> call = calls.next();
  ASSERT_TRUE(call);
  std::string large;
  large.resize(9'000'000, 'x');
  (*call)->answer({-7, ""}, large);  // more than the socket takes
  service.end();
  EXPECT_EQ(caller.answers(1), std::vector<std::int32_t>{-7});
}

TEST_F(ServiceTest, AnAnswerMayComeWhenTheServiceHasGone) {
  dbus::EventLoop loop;
  Call held;
  std::optional<dbus::Service> service(
      std::in_place, loop, dbus::kManager, [&](Call call) { held = std::move(call); }, [] {});
  Client caller;
  caller.send("Any");
  caller.settle();
  while (!held) {
    sd_event_run(loop.native(), UINT64_MAX);
  }
  service.reset();
  held->answer({});
  EXPECT_GT(sd_event_run(loop.native(), 0), 0);
  EXPECT_EQ(caller.answers(1), std::vector<std::int32_t>{kst::kResultReplyLost});
}

TEST_F(ServiceTest, StartFailsWhenTheBusDoesNotAnswer) {
  bus.freeze();
  dbus::EventLoop loop;
  const auto start = steady_clock::now();
  EXPECT_THROW(dbus::Service(loop, dbus::kManager, collect(), [] {}), std::system_error);
  EXPECT_LT(steady_clock::now() - start, seconds(8));
}

TEST(EventLoopTest, RunTellsThatItCannotWait) {
  const std::pair<const char*, std::function<void(dbus::EventLoop & loop)>> cases[] = {
      {"no descriptor to wait on",
       [](dbus::EventLoop& loop) {
         const int other = open("/dev/null", O_RDONLY | O_CLOEXEC);
         dup2(other, sd_event_get_fd(loop.native()));
         close(other);
       }},
      {"it has ended before",
       [](dbus::EventLoop& loop) {
         loop.stop();
         loop.run();
       }},
  };
  for (const auto& [name, breakLoop] : cases) {
    SCOPED_TRACE(name);
    dbus::EventLoop loop;
    breakLoop(loop);
    EXPECT_THROW(loop.run(), std::system_error);
  }
}

}  // namespace
