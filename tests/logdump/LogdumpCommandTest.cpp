#include "logdump/LogdumpCommand.h"

#include <iostream>

#include "platform/client/Constants.h"
#include "tests/fakes/Fakes.h"
#include "tests/fakes/Streams.h"

namespace {

using fakes::Answer;
using Words = std::list<std::string>;

constexpr std::int32_t kDown = kst::kResultManagerNotRunning;
const std::string kPath = "Path = /var/wireless/Library/Logs/FaultDepot/Baseband/log-bb-";
const std::string kNamed = "Success\n" + kPath;
const std::string kTelHeading = "Telephony log collection: ";
const std::string kTelRequest =
    "PerformCommand TraceDumpState TraceAction=\"CollectTelephonyLogs\" TraceDumpStateReason=";
const std::string kCoreHeading = "Telephony log collection with Coredump: ";
const std::string kCoreRequest =
    "PerformCommand TraceDumpState BasebandResetType=\"Hard\" BasebandResetSubType=\"OtherErrors\" "
    "TraceAction=\"CollectTelephonyLogsWithCoredump\" BasebandResetReason=";
const std::string kBbHeading = "Baseband log collection: ";
const std::string kBbQuery =
    "PerformCommand and wait GetTraceProperty TraceName=\"BasebandTrace\" "
    "TracePropertyName=\"Enabled\"\n";
const std::string kBbRequest = "PerformCommand and wait TraceDumpState TraceDumpStateReason=";
const std::string kBbAction = " TraceAction=\"CollectBasebandLogs\"";
const std::string kCompression = " TraceDumpStatePerformCompression=";

std::string reason(const std::string& text) { return "\"[ksttool] " + text + "\""; }

MessageDict timestamp(MessageValue value) {
  return fakes::dictOf(kst::kKeyTimestampString, std::move(value));
}
MessageDict property(MessageValue value) {
  return fakes::dictOf(kst::kKeyTracePropertyValue, std::move(value));
}

class LogdumpCommandTest : public fakes::Test {
 protected:
  /// Runs an option while the manager gives these answers. The transcript: what was asked, and what
  /// was printed, in the order in which it happened.
  std::string run(const std::string& option, const Words& words, std::deque<Answer> answers,
                  bool result = true) {
    fakes::script().managerAnswers = std::move(answers);
    const CapturedOutput transcript(std::cout);
    fakes::script().log = &std::cout;
    EXPECT_EQ(node->executeOption(option, words), result);
    EXPECT_TRUE(transcript.isFlushedByLine());
    return transcript.text();
  }

  const TaskQueue queue = TaskQueue::create("test");
  const std::shared_ptr<LogdumpCommand> node =
      LogdumpCommand::create("logdump", {}, kst::client::CreateManager("test", queue), queue);
};

TEST_F(LogdumpCommandTest, WordsMakeTheRequestAndTheReplyIsPrinted) {
  const struct {
    Words words;
    std::string reason;
    std::string compress;
    Answer answer;
    std::string outcome;  // of telephony logs
  } cases[] = {
      {{}, reason("User triggered"), "true", {1, timestamp("T")}, "Failed\n"},
      {{"nocompress"}, reason("User triggered"), "false", {kDown, {}}, "Failed\n"},
      {{"nocompress", "nocompress", "x"}, reason("x"), "false", {0, {}}, "Success\n"},
      {{"x", "nocompress"}, reason("x"), "true", {0, "T"}, "Success\n"},
      {{"nocompress-x"}, reason("nocompress-x"), "true", {0, timestamp("T")}, kNamed + "T-*\n"},
      {{"NOCOMPRESS"}, reason("NOCOMPRESS"), "true", {0, MessageDict()}, kNamed + "-*\n"},
      {{"", "x"}, reason(""), "true", {0, timestamp(true)}, kNamed + "-*\n"},
      {{"\xff"}, "null", "true", {-1, {}}, "Failed\n"}};
  for (const auto& test : cases) {
    const std::string end = kCompression + test.compress + "\n";
    EXPECT_EQ(run("tel", test.words, {test.answer}),
              kTelRequest + test.reason + end + kTelHeading + test.outcome);
    EXPECT_EQ(run("core", test.words, {test.answer}),
              kCoreRequest + test.reason + end + kCoreHeading + test.outcome);
    EXPECT_EQ(run("bb", test.words, {{0, property("true")}, {1, timestamp("T")}}),
              kBbQuery + kBbRequest + test.reason + kBbAction + end + kBbHeading + "Failed\n");
  }
}

TEST_F(LogdumpCommandTest, BasebandLogsHaveToBeEnabled) {
  for (const std::int32_t status : {1, INT32_MIN, kDown}) {
    EXPECT_EQ(run("bb", {}, {{status, property("1")}}, false), kBbQuery + kBbHeading + "Failed\n");
  }
  for (const MessageValue& reply : {MessageValue(), MessageValue("true")}) {
    EXPECT_EQ(run("bb", {}, {{0, reply}}), kBbQuery + kBbHeading + "Failed\n");
  }
  for (const MessageDict& reply : {MessageDict(), property(true), property("false"),
                                   property("True"), property("1 "), property("")}) {
    EXPECT_EQ(run("bb", {}, {{0, reply}}), kBbQuery + "Baseband logs are not enabled\n");
  }
}

TEST_F(LogdumpCommandTest, BasebandLogsPrintWhatTheServicesReply) {
  const std::string byManager = kBbHeading + "Success (KST running)\n";
  const std::string withoutManager = kBbHeading + "Success (KST not running)\n";
  const std::string vendor = "getRadioVendor\n";
  const std::string builds = "isInternalBuild\nisCarrierBuild\n";
  const std::string create = "HelperClient::create logdump.helper\n";
  const std::string asked =
      "isInternalBuild\n" + create + "HelperClient::perform 5 SyscollectStatus Timeout=1500\n";
  const std::string scratch =
      withoutManager + "Path = /var/wireless/Library/Logs/Kestrane/DIAG.scratch\n";
  const auto expectRun = [&](const Answer& answer, std::int32_t radioVendor, bool compresses,
                             const std::string& transcript) {
    fakes::script().radioVendor = radioVendor;
    EXPECT_EQ(
        run("bb", compresses ? Words{"x"} : Words{"nocompress", "x"}, {{0, property("1")}, answer}),
        kBbQuery + kBbRequest + "\"[ksttool] x\"" + kBbAction + kCompression +
            (compresses ? "true\n" : "false\n") + transcript);
  };
  fakes::script().internalBuild = true;
  fakes::script().helperAnswer = {0, timestamp("T")};
  expectRun({0, timestamp("T")}, 2, true, byManager + kPath + "T-baseband.zip\n");
  expectRun({0, timestamp("T")}, 2, false, byManager + vendor + kPath + "T-diag\n");
  expectRun({0, timestamp("T")}, 1, false, byManager + vendor + kPath + "T-bb-trace\n");
  for (const MessageValue& nameless : {MessageValue("T"), MessageValue(timestamp(true))}) {
    expectRun({0, nameless}, 3, false, byManager + vendor + kPath + "-bb-trace\n");
  }
  for (const std::int32_t other : {kDown + 1, kDown & 0xFFFF, kDown ^ INT32_MIN}) {
    expectRun({other, {}}, 2, true, kBbHeading + "Failed\n");  // all 32 bits of the status count
  }

  expectRun({kDown, {}}, 2, true, asked + withoutManager + vendor + kPath + "T-diag\n");
  expectRun({kDown, {}}, 1, false, asked + withoutManager + vendor + kPath + "T-bb-trace\n");
  for (const Answer& useless : {Answer(0, timestamp(true)), Answer(-1, timestamp("T"))}) {
    fakes::script().helperAnswer = useless;
    expectRun({kDown, timestamp("U")}, 2, true, asked + scratch);
  }
  fakes::script().internalBuild = false;
  expectRun({kDown, {}}, 2, true, builds + scratch);
  fakes::script().carrierBuild = true;
  fakes::script().hasHelper = false;
  expectRun({kDown, {}}, 2, true, builds + create + scratch);
}

}  // namespace
