#include <gmock/gmock.h>

#include <regex>

#include "platform/client/Constants.h"
#include "tests/e2e/Device.h"
#include "tests/platform/bus/ScriptedService.h"
#include "trace/Trace.h"

namespace {

using testing::HasSubstr;

const std::string kRoot = "(/ksttool)>> ";
const std::string kGroup = "(/ksttool/logdump)>> ";
const std::string kTail =
    "\t              cd  -  <sub-command>\n\t            help\n\t            back\n\t            "
    "quit\n\n";
const std::string kRootHelp =
    "\nOptions for command '\033[32mksttool\033[39m':\n\n\t         logdump  -  [bb|core|tel]\n\n" +
    kTail;
const std::string kGroupHelp =
    "\nOptions for command '\033[32mlogdump\033[39m':\n\n"
    "\t              bb  -  [nocompress] <reason> collect baseband logs only\n\n"
    "\t            core  -  [nocompress] <reason> collect telephony logs with coredump\n\n"
    "\t             tel  -  [nocompress] <reason> collect telephony logs\n\n" +
    kTail;
const std::string kRefusal = "Server is not running. Please try after server starts.\n";

std::string unknown(const std::string& word) {
  return "\nInvalid command option '\033[31m" + word + "\033[39m'" + kRootHelp;
}

TEST(ToolTest, DeviceAndWordsDecideWhatIsCollectedAndPrinted) {
  struct Run {
    std::string words;
    std::string output;   // a pattern, with the path as its group
    std::string content;  // of the zip, or what the folder tells of itself, or its entries
  };
  const std::string snapshot = std::string("\nPath = (") + kst::trace::kSnapshotFolder +
                               kst::trace::kLogDirPrefix + "[-0-9]+";
  const std::string telephony = "Telephony log collection: Success" + snapshot + "-\\*)\n";
  const std::string coreDump =
      "Telephony log collection with Coredump: Success" + snapshot + "-\\*)\n";
  const std::string baseband = "Baseband log collection: Success \\(KST running\\)";
  const std::string alone = "Baseband log collection: Success \\(KST not running\\)";
  const std::string scratch =
      std::string("\nPath = (") + kst::trace::kScratchFolder + "DIAG.scratch)\n";
  const std::pair<Words, std::vector<Run>> cases[] = {
      {{},
       {{"tel x", telephony, "PK\3\4"},
        {"tel nocompress modem ignored", telephony, "[ksttool] modem"},
        {"core nocompress", coreDump, "[ksttool] User triggered"},
        {"bb nocompress y", baseband + snapshot + "-bb-trace)\n", "[ksttool] y"}}},
      {{"manager"}, {{"bb", alone + snapshot + "-bb-trace)\n", "System diagnostic collection"}}},
      {{"manager", "helper"}, {{"bb", alone + scratch, "diag.log\n"}}}};
  for (const auto& [absent, runs] : cases) {
    const Device device(absent);
    for (const Run& run : runs) {
      SCOPED_TRACE(testing::PrintToString(absent) + run.words);
      const Finished tool =
          runProgram({"sh", "-c", "ksttool logdump " + run.words}, device.environment);
      EXPECT_EQ(tool.status, 0);
      EXPECT_EQ(tool.errors, "");
      std::smatch match;
      ASSERT_TRUE(std::regex_match(tool.output, match, std::regex(run.output))) << tool.output;
      const std::string content = "p=$(echo $KESTRANE_ROOT" + match[1].str() + "); cat $p" +
                                  kst::trace::kKSTInfoFilename + " || cat $p || ls $p";
      EXPECT_THAT(runProgram({"sh", "-c", content}, device.environment).output,
                  HasSubstr(run.content));
    }
  }
}

TEST(ToolTest, WordsLinesAndWhatItInheritsDecideOutputAndStatus) {
  const std::string nul("a\0b", 3);
  // Less what the test may have inherited itself.
  const std::string few = "exec 3>&- 4>&- 5>&- 6>&- 7>&- 8>&- 9>&-; ulimit -n 5; ";
  const std::string telephony = "Telephony log collection: Success\n";
  const std::string alone = "Baseband log collection: Success (KST not running)\n";
  const struct {
    std::string script;
    Finished finished;  // less the path and the text of an assertion
  } cases[] = {
      {"ksttool --", {0, "", ""}},
      {"ksttool logdump help -- '\xff\xfe'", {1, kGroupHelp + unknown("\xff\xfe"), ""}},
      {"printf 'cd logdump\nback\nquit\nhelp\n' | ksttool", {0, kRoot + kGroup + kRoot, ""}},
      {"printf 'a\\0b\nhelp' | ksttool", {1, kRoot + unknown(nul) + kRoot + kRootHelp + kRoot, ""}},
      {"ksttool logdump tel x <&- 2>&-", {0, telephony, ""}},
      {"ksttool logdump tel x <&- >&- 2>&-", {0, "", ""}},
      {"cd $KESTRANE_ROOT; ln -s $(command -v ksttool) name; echo cd logdump | ./name",
       {1, "(/name)>> (/name/logdump)>> ", ""}},
#ifndef KST_SANITIZED
      // The sanitizers need descriptors, addresses and a stack limit of their own.
      {few + "exec ksttool logdump bb x", {0, alone, ""}},
      {few + "exec ksttool logdump tel x", {1, "", kRefusal}},
      // A thread gets a stack of the soft limit's size: there is room for the shell's own, or none.
      {"ulimit -s 1000000; ulimit -v 1600000; exec ksttool logdump bb x", {0, alone, ""}},
      {"ulimit -s 1000000; ulimit -v 2400000; exec ksttool logdump bb x", {0, alone, ""}},
      {"ulimit -s 140000000000; exec ksttool help", {128 + SIGABRT, "", "ksttool"}},
#endif
  };
  const Device device;
  for (const auto& [script, finished] : cases) {
    SCOPED_TRACE(script);
    const Finished run = runProgram({"sh", "-c", "ulimit -c 0; " + script}, device.environment);
    EXPECT_EQ(run.status, finished.status);
    EXPECT_EQ(run.output.substr(0, run.output.find("Path = ")), finished.output);
    EXPECT_EQ(run.errors.substr(0, run.errors.find(": ")), finished.errors);
  }
}

TEST(ToolTest, OnATerminal) {
  const Device device;
  const Words onTerminal = {"script", "-qec", "ksttool", "/dev/null"};
  Program tool(onTerminal, device.environment);
  tool.readUntil(kRoot);
  tool.write("logdump tel nocompress crash\n");
  EXPECT_THAT(tool.readUntil(kRoot), HasSubstr("Telephony log collection: Success\r\nPath = "));
  tool.write("\004");  // end of input
  EXPECT_EQ(tool.finish(), 1);
  EXPECT_EQ(tool.output, "");

  Program interrupted(onTerminal, device.environment);
  interrupted.readUntil(kRoot);
  interrupted.write("\003");
  EXPECT_EQ(interrupted.finish(), 128 + SIGINT);
}

TEST(ToolTest, ManyCommandsTakeNoMoreThanOne) {
  const Device device({"manager"});
  // NOLINTNEXTLINE(concurrency-mt-unsafe): read by this thread when it connects
  setenv("DBUS_SYSTEM_BUS_ADDRESS", device.environment.at("DBUS_SYSTEM_BUS_ADDRESS").c_str(), 1);
  const ScriptedService manager(
      dbus::kManager, ScriptedService::reply("isv", 0, "", "a{sv}", 2, kst::kKeyTimestampString,
                                             "s", "now", kst::kKeyTracePropertyValue, "s", "true"));
  constexpr int kRounds = 5;
  Program tool({"ksttool"}, device.environment);
  std::string lines;  // not more than a pipe holds
  for (int line = 0; line < 200; ++line) {
    lines += "logdump tel x\nlogdump core\nlogdump bb y\nhelp\n";
  }
  std::string output;
  for (int round = 0; round < kRounds; ++round) {
    tool.write(lines + "cd logdump\ncd ..\n");
    output += tool.readUntil(kGroup);
  }
  const std::string process = "/proc/" + std::to_string(tool.id());
  EXPECT_LT(namesIn(process + "/fd").size(), 30U);
  EXPECT_LT(namesIn(process + "/task").size(), 12U);
  EXPECT_EQ(tool.finish(), 1);
  EXPECT_EQ(tool.errors, "");
  const std::regex success("Success");
  EXPECT_EQ(std::distance(std::sregex_iterator(output.begin(), output.end(), success), {}),
            600 * kRounds);
}

}  // namespace
