#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/collection/TemporaryDevice.h"
#include "tests/e2e/Eventually.h"
#include "tests/e2e/Program.h"

namespace {

namespace fs = std::filesystem;

const char* const kParts[] = {"Corvend", "vexild", "kestrane", "kestrane-helper"};

std::string simulatorPath() {
  return fs::read_symlink("/proc/self/exe").parent_path() / "kst-simulator";
}

std::vector<std::string> simulatorCommand(const std::vector<std::string>& words) {
  std::vector<std::string> command = {simulatorPath()};
  command.insert(command.end(), words.begin(), words.end());
  return command;
}

bool exists(pid_t process) { return kill(process, 0) == 0; }

/// The programs of a simulated device, some of them replaced by shell scripts, and its root.
class ScriptedDevice {
 public:
  using Scripts = std::map<std::string, std::string>;

  explicit ScriptedDevice(const Scripts& scripts) {
    fs::create_directory(folder("programs"));
    fs::create_directory(folder("tmp"));
    fs::copy_file(simulatorPath(), program("kst-simulator"));
    for (const std::string part : kParts) {
      if (!scripts.contains(part)) {
        fs::create_symlink(fs::path(simulatorPath()).parent_path() / part, program(part));
      }
    }
    for (const auto& [name, script] : scripts) {
      writeFile(program(name), "#!/bin/sh\n" + script + "\n");
      fs::permissions(program(name), fs::perms::owner_all);
    }
  }

  [[nodiscard]] std::vector<std::string> command(const std::string& script) const {
    return {program("kst-simulator"), "--root", device.root(), "--", "sh", "-c", script};
  }

  [[nodiscard]] std::map<std::string, std::string> environment() const {
    return {{"PATH", folder("programs") + ":" + std::getenv("PATH")}, {"TMPDIR", folder("tmp")}};
  }

  [[nodiscard]] std::string program(const std::string& name) const {
    return folder("programs") + "/" + name;
  }

  /// Where a part's standard error goes.
  [[nodiscard]] std::string logOf(const std::string& part) const {
    return folder("var/log/" + part + ".log");
  }

  /// In which the simulator makes its folder.
  [[nodiscard]] std::string temporary() const { return folder("tmp"); }

 private:
  [[nodiscard]] std::string folder(const std::string& name) const {
    return device.root() + "/" + name;
  }

  TemporaryDevice device;
};

TEST(SimulatorTest, ExitStatusIsThatOfTheCommand) {
  struct Case {
    std::vector<std::string> words;
    int status;
  };
  const Case cases[] = {
      {{"--", "true"}, 0},
      {{"--", "sh", "-c", "exit 7"}, 7},
      {{"--", "sh", "-c", "kill -9 $$"}, 128 + SIGKILL},
      {{"--", "/no/such/program"}, 127},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(testing::PrintToString(test.words));
    EXPECT_EQ(runProgram(simulatorCommand(test.words)).status, test.status);
  }
}

TEST(SimulatorTest, UsageIsOutputOrError) {
  // Every variable that the command finds changed.
  std::istringstream environment(runProgram(simulatorCommand({"--", "env"})).output);
  std::set<std::string> names;
  for (std::string line; std::getline(environment, line);) {
    const std::string name = line.substr(0, line.find('='));
    const char* own = std::getenv(name.c_str());
    if (own == nullptr || line != name + "=" + own) {
      names.insert(name);
    }
  }
  EXPECT_GE(names.size(), 4U);

  struct Case {
    std::vector<std::string> words;
    int status;
  };
  const Case cases[] = {
      {{"--help"}, 0},    {{"--absent", "manager", "--help", "--unknown"}, 0},
      {{"--unknown"}, 2}, {{"--absent", "nobody"}, 2},
      {{"--root"}, 2},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(testing::PrintToString(test.words));
    const Finished run = runProgram(simulatorCommand(test.words));
    EXPECT_EQ(run.status, test.status);
    const std::string& usage = test.status == 0 ? run.output : run.errors;
    EXPECT_EQ(usage, run.output + run.errors);
    EXPECT_THAT(usage, testing::StartsWith("usage: kst-simulator "));
    for (const std::string& name : names) {
      EXPECT_THAT(usage, testing::HasSubstr(" " + name + " "));
    }
  }
}

TEST(SimulatorTest, ClosedStandardStreamsAreClosedForTheCommandAlone) {
  struct Case {
    std::string redirection;
    int open;  // the command's streams, a bit for each
  };
  const Case cases[] = {
      {"", 7}, {"<&-", 6}, {">&-", 5}, {"2>&-", 3}, {"<&- >&-", 4}, {"<&- >&- 2>&-", 0},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.redirection);
    const ScriptedDevice device({});
    const std::string go = device.program("go");
    std::vector<std::string> command = {"sh", "-c", R"(exec "$0" "$@" )" + test.redirection};
    for (const std::string& word :
         device.command("open=64; for n in 0 1 2; do"
                        "  [ ! -e /proc/$$/fd/$n ] || open=$((open | 1 << n)); "
                        "done; until [ -e " +
                        go + " ]; do sleep 0.01; done; exit $open")) {
      command.push_back(word);
    }
    Program simulator(command, device.environment());
    ASSERT_TRUE(eventually([&] { return simulator.child("sh") > 0; }));

    for (const std::string name :
         {"dbus-daemon", "Corvend", "vexild", "kestrane", "kestrane-helper"}) {
      SCOPED_TRACE(name);
      const fs::path streams = "/proc/" + std::to_string(simulator.child(name)) + "/fd";
      EXPECT_EQ(fs::read_symlink(streams / "0"), "/dev/null");
      EXPECT_EQ(fs::read_symlink(streams / "1"), "/dev/null");
      const std::string errors = fs::read_symlink(streams / "2");
      if (name == "dbus-daemon") {
        EXPECT_THAT(errors, testing::EndsWith("/bus.log"));
      } else {
        EXPECT_EQ(errors, device.logOf(name));
        EXPECT_EQ(readFile(errors), "");
      }
    }
    writeFile(go, "");
    EXPECT_EQ(simulator.finish(), 64 + test.open);
    EXPECT_EQ(simulator.output + simulator.errors, "");
    EXPECT_THAT(namesIn(device.temporary()), testing::IsEmpty());
  }
}

TEST(SimulatorTest, PartThatEndsTooSoonSaysWhy) {
  struct Case {
    std::string part;
    std::string script;
    std::string written;
    std::string message;
  };
  const Case cases[] = {
      {"dbus-daemon", "echo no bus today >&2", "", "the message bus did not start: no bus today"},
      {"Corvend", "exit 3", "", "Corvend has ended"},
      {"vexild", "printf 'one\\ntwo\\n' >&2", "one\ntwo\n", "vexild has ended: one\ntwo"},
      {"kestrane", "printf cut >&2; kill -9 $$", "cut", "kestrane has ended: cut"},
      {"kestrane-helper", "echo x >&2", "x\n", "kestrane-helper has ended: x"},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.part);
    const ScriptedDevice::Scripts scripts = {{test.part, test.script}};
    const ScriptedDevice device(scripts);
    if (test.part != "dbus-daemon") {
      writeFile(device.logOf(test.part), "of an earlier run\n");
    }
    const Finished run = runProgram(device.command("echo not reached"), device.environment());
    EXPECT_EQ(run.status, 125);
    EXPECT_EQ(run.output, "");
    EXPECT_EQ(run.errors, "kst-simulator: " + test.message + "\n");
    for (const std::string part : kParts) {
      const std::string log = device.logOf(part);
      const bool isOfCase = part == test.part;
      EXPECT_EQ(readFile(log), isOfCase ? "of an earlier run\n" + test.written : "") << part;
      struct stat status {};
      if (!isOfCase && stat(log.c_str(), &status) == 0) {
        EXPECT_EQ(status.st_mode & 07777, 0600U) << part;
      }
    }
  }
}

TEST(SimulatorTest, CollectionsAreNotBoundToThisMachinesDisk) {
  struct Case {
    std::vector<std::string> setting;  // for env(1)
    std::string expected;
  };
  const Case cases[] = {
      {{"-u", "KESTRANE_COLLECTION_CONF"}, "\nkeep_free = 0\n"},
      {{"KESTRANE_COLLECTION_CONF="}, "\nkeep_free = 0\n"},
      {{"KESTRANE_COLLECTION_CONF=/dev/null"}, "/dev/null\n"},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(testing::PrintToString(test.setting));
    std::vector<std::string> command = {"env"};
    command.insert(command.end(), test.setting.begin(), test.setting.end());
    for (const std::string& word : simulatorCommand(
             {"--", "sh", "-c",
              R"(echo "$KESTRANE_COLLECTION_CONF"; cat "$KESTRANE_COLLECTION_CONF")"})) {
      command.push_back(word);
    }
    EXPECT_THAT(runProgram(command).output, testing::EndsWith(test.expected));
  }
}

TEST(SimulatorTest, EveryWayOutEndsWhatItStarted) {
  for (const int signal : {0, SIGTERM, SIGHUP, SIGKILL}) {
    SCOPED_TRACE(signal);
    Program simulator({"kst-simulator", "--", "sh", "-c", "echo $KESTRANE_ROOT $$; read -r end"});
    const std::string line = simulator.readUntil("\n");
    const std::string root = line.substr(0, line.find(' '));
    const pid_t command = std::stoi(line.substr(line.find(' ')));
    ASSERT_TRUE(fs::is_directory(root));
    if (signal != 0) {
      kill(simulator.id(), signal);
    }
    simulator.finish();  // ends when everything that holds the pipes has ended
    EXPECT_TRUE(eventually([&] { return !exists(command); }));
    if (signal != SIGKILL) {
      EXPECT_FALSE(fs::exists(root));
    }
    EXPECT_TRUE(eventually([&] { return !fs::exists(root); }));
  }
}

TEST(SimulatorTest, NothingFrozenOrStubbornHoldsUpTheEnd) {
  constexpr std::chrono::seconds kLimit{7};
  // Scripts leave beside them a file with their process when they have begun, and one when they
  // have ended by themselves.
  const std::string begin = "echo $$ >\"$0.begun\"; ";
  const std::string stubborn = "trap '' HUP TERM; " + begin + "exec sleep 60";
  // Ends on SIGTERM, but not before what was frozen goes on.
  const std::string needsFrozen =
      "trap 'until grep -q \"^State:.[RSD]\" /proc/$(cat \"${0%/*}/frozen\")/status;"
      " do sleep 0.01; done; touch \"$0.ended\"; exit 0' TERM; " +
      begin + "while :; do sleep 0.01; done";
  const std::string logs = "\"$2\"/var/wireless/Library/Logs/Kestrane/TelephonyLog";
  const std::string ready = "mkdir -p " + logs + "; echo line >>" + logs + "/telephony.log; ";
  // Is stopped before anybody can connect, and again whenever it goes on.
  const std::string deadBus = begin +
                              R"(socket=${4#--config-file=}; socket=${socket%.conf}
(until [ -S "$socket" ]; do sleep 0.01; done
 sleep 0.1; kill -STOP $$; echo ready >/proc/self/fd/"${5#--print-address=}"
 while kill -STOP $$; do :; done) 2>/dev/null &
PATH=${PATH#*:}; exec dbus-daemon "$1" "$2" "$3" "$4")";
  struct Case {
    const char* name;
    ScriptedDevice::Scripts scripts;
    std::string command;  // empty: is not reached
    std::string frozen;
    int signal;
    int status;
    std::vector<std::string> ended;  // by themselves
  };
  const Case cases[] = {
      {"the bus never starts", {{"dbus-daemon", stubborn}}, "", "", SIGINT, 128 + SIGINT, {}},
      {"the bus never answers",
       {{"dbus-daemon", deadBus}, {"kestrane-helper", begin + "exec sleep 60"}},
       "",
       "",
       SIGTERM,
       128 + SIGTERM,
       {}},
      {"parts never get ready",
       {{"Corvend", stubborn}, {"vexild", stubborn}, {"kestrane", stubborn}},
       "",
       "dbus-daemon",
       SIGTERM,
       128 + SIGTERM,
       {}},
      {"the command and a part go on",
       {{"Corvend", ready + stubborn}},
       stubborn,
       "kestrane",
       SIGTERM,
       128 + SIGKILL,
       {}},
      {"a part and the command end when the bus goes on",
       {{"Corvend", ready + needsFrozen}},
       needsFrozen,
       "dbus-daemon",
       SIGTERM,
       0,
       {"Corvend.ended", "command.ended"}},
      {"a frozen part goes on, and ends",
       {{"Corvend", ready + needsFrozen}},
       needsFrozen,
       "Corvend",
       SIGHUP,
       128 + SIGHUP,
       {"Corvend.ended"}},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    const ScriptedDevice device(test.scripts);
    std::vector<std::string> command = device.command(test.command);
    command.push_back(device.program("command"));  // its "$0"
    Program simulator(command, device.environment());

    std::vector<pid_t> started;
    std::vector<std::string> scripts;
    for (const auto& [name, script] : test.scripts) {
      scripts.push_back(name);
    }
    if (!test.command.empty()) {
      scripts.emplace_back("command");
    }
    for (const std::string& name : scripts) {
      const std::string file = device.program(name + ".begun");
      ASSERT_TRUE(eventually([&] { return readFile(file).ends_with('\n'); })) << name;
      started.push_back(std::stoi(readFile(file)));
    }
    for (const std::string part : kParts) {
      if (!test.scripts.contains(part)) {
        started.push_back(simulator.child(part));
      }
    }
    if (!test.frozen.empty()) {
      const pid_t frozen = simulator.child(test.frozen);
      ASSERT_GT(frozen, 0);
      writeFile(device.program("frozen"), std::to_string(frozen));
      kill(frozen, SIGSTOP);
    }

    const auto before = std::chrono::steady_clock::now();
    kill(simulator.id(), test.signal);
    EXPECT_EQ(simulator.finish(), test.status);
    EXPECT_LT(std::chrono::steady_clock::now() - before, kLimit);
    for (const pid_t process : started) {
      EXPECT_FALSE(process > 0 && exists(process));
    }
    for (const std::string& name : test.ended) {
      EXPECT_TRUE(fs::exists(device.program(name))) << name;
    }
    EXPECT_THAT(namesIn(device.temporary()), testing::IsEmpty());
  }
}

}  // namespace
