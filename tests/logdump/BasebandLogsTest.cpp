#include "logdump/BasebandLogs.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iostream>

#include "platform/client/Constants.h"
#include "tests/fakes/Fakes.h"
#include "tests/fakes/Streams.h"

namespace {

using fakes::Answer;

const std::string kFailed = "Baseband log collection: Failed\n";
const std::string kNotEnabled = "Baseband logs are not enabled\n";
const std::string kByManager = "Baseband log collection: Success (KST running)\n";
const std::string kWithoutManager = "Baseband log collection: Success (KST not running)\n";
const std::string kPath = "Path = /var/wireless/Library/Logs/FaultDepot/Baseband/log-bb-";
const std::string kScratchPath = "Path = /var/wireless/Library/Logs/Kestrane/DIAG.scratch\n";
const std::string kPropertyRequest =
    "PerformCommand and wait GetTraceProperty TraceName=\"BasebandTrace\" "
    "TracePropertyName=\"Enabled\"";

Answer with(const std::string& key, MessageValue value) {
  MessageDict dict;
  dict.set(key, std::move(value));
  return {0, dict};
}

Answer property(MessageValue value) { return with(kst::kKeyTracePropertyValue, std::move(value)); }
Answer timestamp(MessageValue value) { return with(kst::kKeyTimestampString, std::move(value)); }

void expectCollection(std::deque<Answer> answers, const std::list<std::string>& words,
                      const std::string& expectedOutput, bool result = true) {
  static const auto manager = kst::client::CreateManager("test", TaskQueue::create("test"));
  fakes::takeLog();
  fakes::script().managerAnswers = std::move(answers);
  const CapturedOutput output(std::cout);
  const CapturedOutput errors(std::cerr);
  EXPECT_EQ(collectBasebandLogs(manager, words), result);
  EXPECT_EQ(output.text(), expectedOutput);
  EXPECT_TRUE(output.isFlushedByLine());
  EXPECT_EQ(errors.text(), "");
}

TEST(BasebandLogs, AsksForTheTracePropertyFirst) {
  const struct {
    Answer answer;
    std::string output;
    bool result;
  } cases[] = {
      {{1, property("1").reply}, kFailed, false},
      {{kst::kResultManagerNotRunning, {}}, kFailed, false},
      {{0, {}}, kFailed, true},
      {{0, "true"}, kFailed, true},
      {{0, MessageDict()}, kNotEnabled, true},
      {property(true), kNotEnabled, true},
      {property("false"), kNotEnabled, true},
      {property("True"), kNotEnabled, true},
      {property("1 "), kNotEnabled, true},
      {property(""), kNotEnabled, true},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(&test - cases);
    expectCollection({test.answer}, {}, test.output, test.result);
    EXPECT_THAT(fakes::takeLog(), testing::ElementsAre(kPropertyRequest));
  }
}

TEST(BasebandLogs, RequestsTheDump) {
  const std::string request = "PerformCommand and wait TraceDumpState TraceDumpStateReason=";
  const std::string rest = " TraceAction=\"CollectBasebandLogs\" TraceDumpStatePerformCompression=";
  expectCollection({property("1"), {1, {}}}, {}, kFailed);
  EXPECT_THAT(fakes::takeLog(),
              testing::ElementsAre(kPropertyRequest,
                                   request + "\"[ksttool] User triggered\"" + rest + "true"));
  expectCollection({property("true"), {1, {}}}, {"nocompress", "crash", "x"}, kFailed);
  EXPECT_THAT(
      fakes::takeLog(),
      testing::ElementsAre(kPropertyRequest, request + "\"[ksttool] crash\"" + rest + "false"));
}

TEST(BasebandLogs, PrintsWhatTheManagerReplies) {
  const struct {
    Answer answer;
    std::list<std::string> words;
    std::int32_t vendor;
    std::string output;
  } cases[] = {
      {timestamp("T"), {}, 2, kByManager + kPath + "T-baseband.zip\n"},
      {timestamp("T"), {"nocompress"}, 2, kByManager + kPath + "T-diag\n"},
      {timestamp("T"), {"nocompress"}, 1, kByManager + kPath + "T-bb-trace\n"},
      {timestamp("T"), {"nocompress"}, 0, kByManager + kPath + "T-bb-trace\n"},
      {{0, MessageDict()}, {}, 2, kByManager + kPath + "-baseband.zip\n"},
      {timestamp(true), {"nocompress"}, 2, kByManager + kPath + "-diag\n"},
      {{0, "T"}, {"nocompress"}, 3, kByManager + kPath + "-bb-trace\n"},
      {{1, timestamp("T").reply}, {}, 2, kFailed},
      {{kst::kResultHelperNotRunning, {}}, {}, 2, kFailed},
      {{kst::kResultManagerNotRunning & 0xFFFF, {}}, {}, 2, kFailed},
  };
  fakes::script().internalBuild = true;
  for (const auto& test : cases) {
    SCOPED_TRACE(&test - cases);
    fakes::script().radioVendor = test.vendor;
    expectCollection({property("1"), test.answer}, test.words, test.output);
    EXPECT_THAT(fakes::takeLog(), testing::Each(testing::Ne("isInternalBuild")));
  }
}

TEST(BasebandLogs, TurnsToTheHelperWhileTheManagerIsDown) {
  using Questions = std::vector<std::string>;
  const Questions asked = {"isInternalBuild", "HelperClient::create logdump.helper",
                           "HelperClient::perform 5 SyscollectStatus Timeout=1500"};
  const auto expectFallback = [](const Answer& helper, const std::string& path,
                                 const Questions& questions) {
    SCOPED_TRACE(path);
    fakes::script().helperAnswer = helper;
    for (const char* const word : {"reason", "nocompress"}) {
      expectCollection({property("true"), {kst::kResultManagerNotRunning, {}}}, {word},
                       kWithoutManager + path);
      const Questions log = fakes::takeLog();  // the manager's two commands first
      EXPECT_EQ(Questions(log.begin() + 2, log.end()), questions);
    }
  };
  fakes::script().radioVendor = 2;
  expectFallback(timestamp("T"), kScratchPath, {"isInternalBuild", "isCarrierBuild"});
  fakes::script().internalBuild = true;
  for (const Answer& useless : {Answer(), timestamp(true), Answer(1, timestamp("T").reply)}) {
    expectFallback(useless, kScratchPath, asked);
  }
  const Questions askedForVendor = {asked[0], asked[1], asked[2], "getRadioVendor"};
  expectFallback(timestamp("T"), kPath + "T-diag\n", askedForVendor);
  fakes::script().radioVendor = 1;
  expectFallback(timestamp("T"), kPath + "T-bb-trace\n", askedForVendor);
  fakes::script().internalBuild = false;
  fakes::script().carrierBuild = true;
  fakes::script().hasHelper = false;
  expectFallback({}, kScratchPath, {asked[0], "isCarrierBuild", asked[1]});
}

}  // namespace
