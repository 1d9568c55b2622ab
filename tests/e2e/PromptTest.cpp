#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>

#include "tests/e2e/Device.h"
#include "tests/e2e/Eventually.h"
#include "tests/e2e/Files.h"
#include "trace/Trace.h"

namespace {

namespace fs = std::filesystem;

const std::string kRoot = "(/ksttool)>> ";
const std::string kGroup = "(/ksttool/logdump)>> ";

TEST(PromptTest, LinesThroughAPipe) {
  struct Case {
    const char* name;
    std::string input;
    int status;
    std::string output;
  };
  const Case cases[] = {
      {"end of input", "", 1, kRoot},
      {"blank lines", "\n \t \r\n", 1, kRoot + kRoot + kRoot},
      {"quit", "quit\nhelp\n", 0, kRoot},
      {"no final line feed", "exit", 0, kRoot},
      {"moves", "cd logdump\nback\ncd //\nback\nlogdump cd ..\n", 1,
       kRoot + kGroup + kRoot + kRoot + kRoot + kRoot},
      {"only hyphens", "--\n-- --\n", 1, kRoot + kRoot + kRoot},
      {"the prompt stays where it was", "cd logdump -- cd .. -- cd logdump\nexit\n", 0,
       kRoot + kGroup},
  };
  const Device device({"manager", "helper", "vexild"});
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    const Finished run = device.ksttool({}, test.input);
    EXPECT_EQ(run.status, test.status);
    EXPECT_EQ(run.output, test.output);
    EXPECT_EQ(run.errors, "");
  }
}

TEST(PromptTest, HostileLinesAreUnknownWords) {
  const Device device({"manager", "helper", "vexild"});
  for (const std::string& word : {std::string("a\0b", 3), std::string("\xff\xc0\x80"),
                                  std::string(1 << 20, 'x'), std::string("---")}) {
    const Finished run = device.ksttool({}, word + "\nquit\n");
    EXPECT_EQ(run.status, 0);
    EXPECT_TRUE(run.output.starts_with(kRoot + "\nInvalid command option '\033[31m" + word +
                                       "\033[39m'\nOptions"));
    EXPECT_TRUE(run.output.ends_with("quit\n\n" + kRoot));
  }
}

TEST(PromptTest, TheProgramsNameIsTheRootsName) {
  const Device device({"manager", "helper", "vexild"});
  const fs::path link = testing::TempDir() + "other-name";
  fs::remove(link);
  fs::create_symlink(fs::read_symlink("/proc/self/exe").parent_path() / "ksttool", link);
  EXPECT_EQ(runProgram({link}, device.environment, "cd logdump\n").output,
            "(/other-name)>> (/other-name/logdump)>> ");
}

TEST(PromptTest, OnATerminal) {
  const Device device;
  Program tool({"ksttool"}, device.environment, Program::Streams::kTerminal);
  tool.readUntil(kRoot);
  tool.write("logdump tel nocompress crash\n");
  EXPECT_NE(tool.readUntil(kRoot).find("Telephony log collection: Success\r\nPath = "),
            std::string::npos);
  tool.write("\004");  // end of input
  EXPECT_EQ(tool.finish(), 1);
  EXPECT_EQ(tool.output, "");

  Program interrupted({"ksttool"}, device.environment, Program::Streams::kTerminal);
  interrupted.readUntil(kRoot);
  interrupted.write("\003");
  EXPECT_EQ(interrupted.finish(), 128 + SIGINT);
}

TEST(PromptTest, AManagerKilledInACollectionFailsItAndComesBack) {
  for (const auto& [command, failure] :
       {std::pair("logdump tel nocompress x\n", "Telephony log collection: Failed\n"),
        std::pair("logdump bb nocompress x\n", "Baseband log collection: Failed\n")}) {
    SCOPED_TRACE(command);
    const Device device;
    const fs::path big =
        device.below(std::string(kst::trace::kScratchFolder) + "DIAG.scratch/big.log");
    writeFile(big, "x");
    fs::resize_file(big, std::uintmax_t{3} << 30);  // a sparse file: no room, but long to copy
    Program tool({"ksttool"}, device.environment);
    tool.readUntil(kRoot);
    tool.write(command);
    ASSERT_TRUE(
        eventually([&] { return fs::exists(device.below(kst::trace::kDumpIndicationFilePath)); }));
    device.kill("kestrane");
    EXPECT_EQ(tool.readUntil(kRoot), failure + kRoot);
    EXPECT_TRUE(entriesOf(device.below(kst::trace::kSnapshotFolder)).empty());

    // The lost reply may reach the tool before the news that nobody owns the name.
    EXPECT_TRUE(eventually([&] {
      tool.write("logdump tel x\n");
      return tool.readUntil(kRoot) == kRoot;
    }));
    fs::remove(big);
    const Program manager({"kestrane", "--root", device.environment.at("KESTRANE_ROOT")},
                          device.environment);
    ASSERT_TRUE(eventually([&] {
      tool.write("logdump tel again\n");
      return tool.readUntil(kRoot).starts_with("Telephony log collection: Success\nPath = ");
    }));
    EXPECT_FALSE(entriesOf(device.below(kst::trace::kSnapshotFolder)).empty());
    EXPECT_FALSE(fs::exists(device.below(kst::trace::kDumpIndicationFilePath)));
    EXPECT_TRUE(fs::is_empty(device.below(kst::trace::kUncompressedFolder)));
    tool.finish();
    EXPECT_TRUE(tool.errors.starts_with("Server is not running. Please try after server starts.\n"))
        << tool.errors;
  }
}

TEST(PromptTest, ABusThatGoesAwayIsAManagerThatIsNotThere) {
  const Device device({"helper"});
  Program tool({"ksttool"}, device.environment);
  tool.readUntil(kRoot);
  device.kill("dbus-daemon");
  ASSERT_TRUE(eventually([&] {
    tool.write("logdump tel x\n");
    return tool.readUntil(kRoot) == kRoot;
  }));
  tool.write("logdump bb x\n");
  EXPECT_TRUE(tool.readUntil(kRoot).starts_with(
      "Baseband log collection: Success (KST not running)\nPath = "));
  tool.write("quit\n");
  EXPECT_EQ(tool.finish(), 0);
}

}  // namespace
