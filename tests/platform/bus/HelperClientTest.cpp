#include "platform/client/HelperClient.h"

#include <gtest/gtest.h>

#include <optional>

#include "tests/platform/bus/PrivateBus.h"
#include "tests/platform/bus/ScriptedService.h"

namespace {

TEST(HelperClientTest, EveryFailureIsToldAndLeavesTheReplyEmpty) {
  struct Case {
    const char* name;
    std::optional<ScriptedService::Script> script;  // none: no service
    std::int32_t status;
    std::string timestamp;
  };
  const Case cases[] = {
      {"success", ScriptedService::reply("isv", 0, "", "a{sv}", 1, "TimestampString", "s", "now"),
       0, "now"},
      {"no dictionary", ScriptedService::reply("isv", 0, "", "s", "now"), 0, ""},
      {"malformed", ScriptedService::reply("s", "now"), kst::kResultMalformedReply, ""},
      {"no answer in time", [](sd_bus_message*) {}, kst::kResultReplyLost, ""},
      {"no service", std::nullopt, kst::kResultHelperNotRunning, ""},
  };
  PrivateBus bus;
  bus.start();
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    std::optional<ScriptedService> service;
    std::int32_t task = 0;
    if (test.script) {
      service.emplace(dbus::kHelper, [&](sd_bus_message* call) {
        sd_bus_message_read(call, "si", nullptr, &task);
        (*test.script)(call);
      });
    }
    std::string log;
    const auto helper =
        kst::HelperClient::create("test", [&](const std::string& line) { log += line; });
    MessageDict request;
    request.set(kst::helper::kKeyTimeout, std::int64_t{1});
    MessageDict reply = request;
    const CommandResult result =
        helper->perform(kst::helper::TaskID::kSyscollect, "Status", request, reply);
    service.reset();
    EXPECT_EQ(result.status, test.status) << result.text;
    EXPECT_EQ(reply.text("TimestampString", ""), test.timestamp);
    EXPECT_EQ(reply.find(kst::helper::kKeyTimeout), nullptr);
    EXPECT_EQ(log.empty(), test.status == 0);
    EXPECT_EQ(task, test.script ? 5 : 0);
  }
}

TEST(HelperClientTest, NoBusMeansNoHelper) {
  PrivateBus bus;
  MessageDict request;
  request.set(kst::helper::kKeyTimeout, std::int64_t{1});
  for (const bool frozen : {false, true}) {
    if (frozen) {
      bus.start();
      bus.freeze();
    }
    MessageDict reply;
    const auto helper = kst::HelperClient::create("test", {});
    EXPECT_EQ(helper->perform(kst::helper::TaskID::kSyscollect, "Status", request, reply).status,
              kst::kResultHelperNotRunning);
  }
}

}  // namespace
