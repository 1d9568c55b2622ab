#include "logdump/LogdumpCommand.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <iostream>

#include "Tools/KSTTool/ServerRunning.h"
#include "platform/client/Constants.h"
#include "tests/fakes/Fakes.h"
#include "tests/fakes/Streams.h"

namespace {

class LogdumpCommandTest : public testing::Test {
 protected:
  LogdumpCommandTest() { fakes::takeLog(); }

  /// Runs an option while the manager gives this answer, and returns its output.
  std::string run(const std::string& option, const std::list<std::string>& words,
                  const fakes::Answer& answer) {
    fakes::script().managerAnswers = {answer};
    const CapturedOutput output(std::cout);
    EXPECT_TRUE(node->executeOption(option, words));
    EXPECT_TRUE(output.isFlushedByLine());
    return output.text();
  }

  const TaskQueue queue = TaskQueue::create("test");
  const std::shared_ptr<LogdumpCommand> node =
      LogdumpCommand::create("logdump", {}, kst::client::CreateManager("test", queue), queue);
};

TEST_F(LogdumpCommandTest, RefusesAllButBbWhileTheServerIsDown) {
  const std::string refusal = "Server is not running. Please try after server starts.\n";
  for (const bool running : {true, false}) {
    gServerRunning = running;
    for (const char* const option : {"tel", "core", "bb", "b", "bbx", ""}) {
      SCOPED_TRACE(testing::Message() << option << (running ? " up" : " down"));
      const bool allowed = running || std::string(option) == "bb";
      const CapturedOutput output(std::cout);
      const CapturedOutput errors(std::cerr);
      EXPECT_EQ(node->isOptionAllowed(option), allowed);
      EXPECT_EQ(errors.text(), allowed ? "" : refusal);
      EXPECT_TRUE(errors.isFlushedByLine());
      EXPECT_EQ(output.text(), "");
    }
  }
}

TEST_F(LogdumpCommandTest, RequestsHoldTheirKeysInOrder) {
  const std::string tel =
      "PerformCommand TraceDumpState TraceAction=\"CollectTelephonyLogs\" TraceDumpStateReason=";
  const std::string core =
      "PerformCommand TraceDumpState BasebandResetType=\"Hard\" "
      "BasebandResetSubType=\"OtherErrors\" TraceAction=\"CollectTelephonyLogsWithCoredump\" "
      "BasebandResetReason=";
  const struct {
    std::list<std::string> words;
    std::string reason;
    std::string compress;
  } cases[] = {
      {{}, "\"[ksttool] User triggered\"", "true"},
      {{"nocompress"}, "\"[ksttool] User triggered\"", "false"},
      {{"nocompress", "nocompress", "modem-crash"}, "\"[ksttool] modem-crash\"", "false"},
      {{"modem", "nocompress"}, "\"[ksttool] modem\"", "true"},
      {{"NOCOMPRESS", "crash"}, "\"[ksttool] NOCOMPRESS\"", "true"},
      {{"", "x"}, "\"[ksttool] \"", "true"},
      {{"\xff"}, "null", "true"},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(testing::PrintToString(test.words));
    run("tel", test.words, {});
    run("core", test.words, {});
    const std::string rest = test.reason + " TraceDumpStatePerformCompression=" + test.compress;
    EXPECT_THAT(fakes::takeLog(), testing::ElementsAre(tel + rest, core + rest));
  }
}

TEST_F(LogdumpCommandTest, PrintsWhatTheManagerReplies) {
  const std::string path = "Path = /var/wireless/Library/Logs/FaultDepot/Baseband/log-bb-";
  MessageDict good;
  good.set(kst::kKeyTimestampString, "2026-01-02");
  MessageDict noText;
  noText.set(kst::kKeyTimestampString, true);
  const std::pair<fakes::Answer, std::string> cases[] = {
      {{0, good}, "Success\n" + path + "2026-01-02-*\n"},
      {{1, good}, "Failed\n"},
      {{kst::kResultManagerNotRunning, {}}, "Failed\n"},
      {{0, {}}, "Success\n"},
      {{0, "2026-01-02"}, "Success\n"},
      {{0, MessageDict()}, "Success\n" + path + "-*\n"},
      {{0, noText}, "Success\n" + path + "-*\n"},
  };
  for (const auto& [answer, outcome] : cases) {
    EXPECT_EQ(run("tel", {}, answer), "Telephony log collection: " + outcome);
    EXPECT_EQ(run("core", {}, answer), "Telephony log collection with Coredump: " + outcome);
  }
}

TEST_F(LogdumpCommandTest, WaitsForALateReply) {
  const TaskGroup gate = TaskGroup::create();
  gate.enter();
  fakes::script().answersWaitFor = gate;
  auto output = std::async(std::launch::async, [&] { return run("tel", {}, {}); });
  EXPECT_EQ(output.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  gate.leave();
  EXPECT_EQ(output.get(), "Telephony log collection: Success\n");
}

}  // namespace
