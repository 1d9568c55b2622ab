#include <glob.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "tests/e2e/Device.h"
#include "tests/e2e/Files.h"
#include "trace/Trace.h"

namespace {

namespace fs = std::filesystem;

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
  return "\nInvalid command option '\033[31m" + word + "\033[39m'";
}

TEST(OneShotTest, WordsDecideOutputAndStatus) {
  struct Case {
    std::vector<std::string> words;
    int status;
    std::string output;
    std::string errors;
  };
  const Case cases[] = {
      {{"--"}, 0, "", ""},
      {{"help"}, 0, kRootHelp, ""},
      {{"logdump"}, 1, kGroupHelp, ""},
      {{"logdump", "help"}, 0, kGroupHelp, ""},
      {{"quit", "--", "logdump"}, 0, "", ""},
      {{"xyz", "--", "help"}, 1, unknown("xyz") + kRootHelp, ""},
      {{"logdump tel"}, 1, unknown("logdump tel") + kRootHelp, ""},
      {{"cd", "logdump", "--", "tel"}, 1, unknown("tel") + kRootHelp, ""},
      {{"cd", "logdump/nosuch"}, 1, kGroupHelp, ""},
      {{"\xff\xfe"}, 1, unknown("\xff\xfe") + kRootHelp, ""},
      {{"logdump", "tel", "x"}, 1, "", kRefusal},
      {{"logdump", "core"}, 1, "", kRefusal},
  };
  const Device device({"manager", "helper", "vexild"});
  for (const Case& test : cases) {
    SCOPED_TRACE(testing::PrintToString(test.words));
    const Finished run = device.ksttool(test.words);
    EXPECT_EQ(run.status, test.status);
    EXPECT_EQ(run.output, test.output);
    EXPECT_EQ(run.errors, test.errors);
  }
}

/// The one entry that a printed path names, which may end in "*".
std::string entryOf(const Device& device, const std::string& printed) {
  glob_t found{};
  EXPECT_EQ(glob(device.below(printed).c_str(), 0, nullptr, &found), 0) << printed;
  EXPECT_EQ(found.gl_pathc, 1U);
  std::string entry = found.gl_pathc > 0 ? found.gl_pathv[0] : "";
  globfree(&found);
  return entry;
}

TEST(OneShotTest, CollectionsWriteWhatTheyPrint) {
  struct Case {
    std::vector<std::string> words;
    std::string heading;
    std::string suffix;  // of the printed path
    std::string reason;  // in the snapshot; empty: the snapshot is a zip
  };
  const std::string telephony = "Telephony log collection: Success";
  const std::string coredump = "Telephony log collection with Coredump: Success";
  const std::string baseband = "Baseband log collection: Success \\(KST running\\)";
  const Case cases[] = {
      {{"tel", "x"}, telephony, "-\\*", ""},
      {{"tel", "nocompress", "modem", "ignored"}, telephony, "-\\*", "[ksttool] modem"},
      {{"tel", "nocompress"}, telephony, "-\\*", "[ksttool] User triggered"},
      {{"core", "nocompress", "crash"}, coredump, "-\\*", "[ksttool] crash"},
      {{"bb"}, baseband, "-baseband.zip", ""},
      {{"bb", "nocompress", "y"}, baseband, "-bb-trace", "[ksttool] y"},
  };
  const Device device;
  for (const Case& test : cases) {
    SCOPED_TRACE(testing::PrintToString(test.words));
    const Finished run = device.ksttool(joined({"logdump"}, test.words));
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.errors, "");
    std::smatch match;
    const std::regex expected(test.heading + "\nPath = (" + kst::trace::kSnapshotFolder +
                              kst::trace::kLogDirPrefix + "[-0-9]+" + test.suffix + ")\n");
    ASSERT_TRUE(std::regex_match(run.output, match, expected)) << run.output;
    const std::string entry = entryOf(device, match[1]);
    if (test.reason.empty()) {
      EXPECT_EQ(readFile(entry).substr(0, 2), "PK");
    } else {
      EXPECT_NE(readFile(entry + kst::trace::kKSTInfoFilename).find(test.reason),
                std::string::npos);
    }
  }
}

TEST(OneShotTest, ProductAndPartsDecide) {
  const std::string success = "Baseband log collection: Success \\(KST not running\\)\nPath = ";
  const std::string snapshot =
      success + kst::trace::kSnapshotFolder + kst::trace::kLogDirPrefix + "[-0-9]+";
  const std::string scratch = success + kst::trace::kScratchFolder + "DIAG.scratch\n";
  const std::string noRadio = "'ksttool' is not supported on this product.\n";
  const std::string noDaemon =
      "Corvend process is not running. Please run/load Corvend \\(or vexild\\) and try again.\n";
  const Words bb = {"logdump", "bb", "x"};
  const Words nothing = {"--"};
  const struct {
    Words absent;
    Variables settings;
    Words words;
    int status;
    std::string output;
  } cases[] = {
      {{"manager"}, {}, bb, 0, snapshot + "-bb-trace\n"},
      {{"manager"}, {{"radio_vendor", "2"}}, bb, 0, snapshot + "-diag\n"},
      {{"manager"}, {{"internal_build", "false"}}, bb, 0, scratch},
      {{"manager", "helper"}, {}, bb, 0, scratch},
      {{"manager"},
       {{"trace.BasebandTrace.Enabled", "True"}},
       bb,
       0,
       "Baseband logs are not enabled\n"},
      {{}, {{"radio", "broken"}}, nothing, 255, noRadio},
      {{"corvend", "vexild"}, {}, nothing, 255, noDaemon},
      {{"corvend", "vexild"}, {{"product", "61"}}, nothing, 0, ""},
      {{"corvend"}, {}, nothing, 0, ""},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(testing::PrintToString(test.absent) + testing::PrintToString(test.settings));
    const Device device(test.absent, test.settings);
    const Finished run = device.ksttool(test.words);
    EXPECT_EQ(run.status, test.status);
    EXPECT_EQ(run.errors, "");
    ASSERT_TRUE(std::regex_match(run.output, std::regex(test.output))) << run.output;
    const std::size_t path = run.output.find("Path = ");
    if (path != std::string::npos) {
      const std::string printed = run.output.substr(path + 7, run.output.size() - path - 8);
      EXPECT_TRUE(fs::is_directory(device.below(printed))) << printed;
    }
  }
}

TEST(OneShotTest, AThreadThatCannotBeMadeIsAnAssertion) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "the thread sanitizer sets a stack limit of its own";
#endif
  const Device device;
  // A thread gets a stack of the soft limit's size, here more than there are addresses.
  const Finished run = runProgram(
      {"sh", "-c", "ulimit -c 0; ulimit -s 140000000000; exec ksttool help"}, device.environment);
  EXPECT_EQ(run.status, 128 + SIGABRT);
  EXPECT_EQ(run.output, "");
  EXPECT_NE(run.errors.find("Assertion `ret == 0' failed."), std::string::npos) << run.errors;
}

TEST(OneShotTest, ClosedStandardStreamsHarmNothing) {
  const Device device;
  for (const std::string redirection : {"<&-", ">&-", "2>&-", "<&- >&- 2>&-"}) {
    const std::string script = "exec ksttool logdump tel x " + redirection;
    EXPECT_EQ(runProgram({"sh", "-c", script}, device.environment).status, 0) << script;
  }
  EXPECT_EQ(runProgram({"sh", "-c", "exec ksttool <&-"}, device.environment).output,
            "(/ksttool)>> ");
}

}  // namespace
