#include "platform/client/HelperClient.h"

#include "tests/platform/bus/PrivateBus.h"
#include "tests/platform/bus/ScriptedService.h"

namespace {

/// Expects this status and timestamp of a helper that answers with `script`, or of none.
void expectOf(const std::optional<ScriptedService::Script>& script, std::int32_t status,
              const std::string& timestamp = "") {
  std::optional<ScriptedService> service;
  std::int32_t task = 0;
  if (script) {
    service.emplace(dbus::kHelper, [&](sd_bus_message* call) {
      sd_bus_message_read(call, "si", nullptr, &task);
      (*script)(call);
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
  EXPECT_EQ(result.status, status) << result.text;
  EXPECT_EQ(reply.text("TimestampString", ""), timestamp);
  EXPECT_EQ(reply.find(kst::helper::kKeyTimeout), nullptr);
  EXPECT_EQ(log.empty(), status == 0);
  EXPECT_EQ(task, script ? 5 : 0);
}

TEST(HelperClientTest, EveryFailureIsToldAndLeavesTheReplyEmpty) {
  PrivateBus bus;
  expectOf(std::nullopt, kst::kResultHelperNotRunning);
  bus.start();
  expectOf(std::nullopt, kst::kResultHelperNotRunning);
  expectOf(ScriptedService::reply("isv", 0, "", "a{sv}", 1, "TimestampString", "s", "now"), 0,
           "now");
  expectOf(ScriptedService::reply("isv", 0, "", "s", "no dictionary"), 0);
  expectOf(ScriptedService::reply("s", "malformed"), kst::kResultMalformedReply);
  expectOf([](sd_bus_message*) {}, kst::kResultReplyLost);
  bus.freeze();
  expectOf(std::nullopt, kst::kResultHelperNotRunning);
}

}  // namespace
