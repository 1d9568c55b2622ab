#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/e2e/Eventually.h"
#include "tests/e2e/Files.h"
#include "tests/e2e/Program.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

namespace fs = std::filesystem;

bool exists(pid_t process) { return kill(process, 0) == 0; }

const char* const kParts[] = {"Corvend", "vexild", "kestrane", "kestrane-helper"};

Finished simulate(const Words& words) { return runProgram(joined({"kst-simulator"}, words)); }

/// The programs of a simulated device, some of them replaced by shell scripts, and its root.
class ScriptedDevice {
 public:
  explicit ScriptedDevice(const Variables& scripts) {
    const fs::path real = fs::read_symlink("/proc/self/exe").parent_path();
    fs::create_directory(programs);
    fs::create_directory(temporary);
    fs::copy_file(real / "kst-simulator", programs / "kst-simulator");
    for (const std::string part : kParts) {
      if (!scripts.contains(part)) {
        fs::create_symlink(real / part, programs / part);
      }
    }
    for (const auto& [name, script] : scripts) {
      writeFile(programs / name, "#!/bin/sh\n" + script + "\n");
      fs::permissions(programs / name, fs::perms::owner_all);
    }
  }

  [[nodiscard]] Words command(const std::string& script) const {
    return {programs / "kst-simulator", "--root", directory.path, "--", "sh", "-c", script};
  }

  [[nodiscard]] Variables environment() const {
    return {{"PATH", programs.string() + ":" + std::getenv("PATH")}, {"TMPDIR", temporary}};
  }

  /// Where a part's standard error goes.
  [[nodiscard]] std::string logOf(const std::string& part) const {
    return directory / ("var/log/" + part + ".log");
  }

  const TemporaryDirectory directory;
  const fs::path programs = directory / "programs";
  const fs::path temporary = directory / "tmp";  ///< in which the simulator makes its folder
};

TEST(SimulatorTest, ExitStatusIsThatOfTheCommand) {
  const std::pair<Words, int> cases[] = {
      {{"true"}, 0},
      {{"sh", "-c", "exit 7"}, 7},
      {{"sh", "-c", "kill -9 $$"}, 128 + SIGKILL},
      {{"/no/such/program"}, 127},
  };
  for (const auto& [command, status] : cases) {
    EXPECT_EQ(simulate(joined({"--"}, command)).status, status) << testing::PrintToString(command);
  }
}

TEST(SimulatorTest, UsageIsOutputOrError) {
  // Every variable that the command finds changed.
  std::istringstream environment(simulate({"--", "env"}).output);
  std::set<std::string> names;
  for (std::string line; std::getline(environment, line);) {
    const std::string name = line.substr(0, line.find('='));
    const char* own = std::getenv(name.c_str());
    if (own == nullptr || line != name + "=" + own) {
      names.insert(name);
    }
  }
  EXPECT_GE(names.size(), 4U);

  const std::pair<Words, int> cases[] = {
      {{"--help"}, 0},    {{"--absent", "manager", "--help", "--unknown"}, 0},
      {{"--unknown"}, 2}, {{"--absent", "nobody"}, 2},
      {{"--root"}, 2},
  };
  for (const auto& [words, status] : cases) {
    SCOPED_TRACE(testing::PrintToString(words));
    const Finished run = simulate(words);
    EXPECT_EQ(run.status, status);
    const std::string& usage = status == 0 ? run.output : run.errors;
    EXPECT_EQ(usage, run.output + run.errors);
    EXPECT_THAT(usage, testing::StartsWith("usage: kst-simulator "));
    for (const std::string& name : names) {
      EXPECT_THAT(usage, testing::HasSubstr(" " + name + " "));
    }
  }
}

TEST(SimulatorTest, ClosedStandardStreamsAreClosedForTheCommandAlone) {
  const std::pair<std::string, int> cases[] = {
      // The command's open streams, a bit for each.
      {"", 7}, {"<&-", 6}, {">&-", 5}, {"2>&-", 3}, {"<&- >&-", 4}, {"<&- >&- 2>&-", 0},
  };
  for (const auto& [redirection, open] : cases) {
    SCOPED_TRACE(redirection);
    const ScriptedDevice device({});
    const std::string go = device.programs / "go";
    const std::string script =
        "open=64; for n in 0 1 2; do [ ! -e /proc/$$/fd/$n ] || open=$((open | 1 << n)); done; "
        "until [ -e " +
        go + " ]; do sleep 0.01; done; exit $open";
    Program simulator(
        joined({"sh", "-c", R"(exec "$0" "$@" )" + redirection}, device.command(script)),
        device.environment());
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
    EXPECT_EQ(simulator.finish(), 64 + open);
    EXPECT_EQ(simulator.output + simulator.errors, "");
    EXPECT_THAT(entriesOf(device.temporary), testing::IsEmpty());
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
    const ScriptedDevice device(Variables{{test.part, test.script}});
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
      if (!isOfCase && fs::exists(log)) {
        EXPECT_EQ(fs::status(log).permissions(), fs::perms(0600)) << part;
      }
    }
  }
}

TEST(SimulatorTest, CollectionsAreNotBoundToThisMachinesDisk) {
  const std::string script = R"(echo "$KESTRANE_COLLECTION_CONF"; cat "$KESTRANE_COLLECTION_CONF")";
  for (const auto& [value, expected] :
       {std::pair("", "\nkeep_free = 0\n"), std::pair("/dev/null", "/dev/null\n")}) {
    EXPECT_THAT(runProgram({"kst-simulator", "--", "sh", "-c", script},
                           {{"KESTRANE_COLLECTION_CONF", value}})
                    .output,
                testing::EndsWith(expected));
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
    kill(simulator.id(), signal);
    simulator.finish();  // ends when everything that holds the pipes has ended
    EXPECT_TRUE(eventually([&] { return !exists(command); }));
    if (signal != SIGKILL) {
      EXPECT_FALSE(fs::exists(root));
    }
    EXPECT_TRUE(eventually([&] { return !fs::exists(root); }));
  }
}

TEST(SimulatorTest, NothingFrozenOrStubbornHoldsUpTheEnd) {
  const std::chrono::seconds kLimit{7};
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
    Variables scripts;
    std::string command = {};  // empty: is not reached
    std::string frozen = {};
    int signal = SIGTERM;
    int status = 128 + SIGTERM;
    Words ended = {};  // by themselves
  };
  const Case cases[] = {
      {.name = "the bus never starts",
       .scripts = {{"dbus-daemon", stubborn}},
       .signal = SIGINT,
       .status = 128 + SIGINT},
      {.name = "the bus never answers",
       .scripts = {{"dbus-daemon", deadBus}, {"kestrane-helper", begin + "exec sleep 60"}}},
      {.name = "parts never get ready",
       .scripts = {{"Corvend", stubborn}, {"vexild", stubborn}, {"kestrane", stubborn}},
       .frozen = "dbus-daemon"},
      {"the command and a part go on",
       {{"Corvend", ready + stubborn}},
       stubborn,
       "kestrane",
       SIGTERM,
       128 + SIGKILL},
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
  // A script that is open for writing when the other thread forks cannot be executed for a while.
  std::mutex forking;
  const auto endsInTime = [kLimit, &forking](const Case& test) {
    SCOPED_TRACE(test.name);
    std::unique_lock lock(forking);
    const ScriptedDevice device(test.scripts);
    const auto beside = [&](const std::string& name) { return device.programs / name; };
    Program simulator(joined(device.command(test.command), {beside("command")}),  // its "$0"
                      device.environment());
    lock.unlock();

    Variables scripts = test.scripts;
    if (!test.command.empty()) {
      scripts["command"] = test.command;
    }
    std::vector<pid_t> started;
    for (const auto& [name, script] : scripts) {
      const fs::path file = beside(name + ".begun");
      ASSERT_TRUE(eventually([&] { return readFile(file).ends_with('\n'); })) << name;
      started.push_back(std::stoi(readFile(file)));
    }
    for (const std::string part : kParts) {
      if (!scripts.contains(part)) {
        started.push_back(simulator.child(part));
      }
    }
    if (!test.frozen.empty()) {
      const pid_t frozen = simulator.child(test.frozen);
      ASSERT_GT(frozen, 0);
      writeFile(beside("frozen"), std::to_string(frozen));
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
      EXPECT_TRUE(fs::exists(beside(name))) << name;
    }
    EXPECT_THAT(entriesOf(device.temporary), testing::IsEmpty());
  };
  // Most of it is waiting; but a device that starts beside many others may not get ready in time.
  for (std::size_t pair = 0; pair < std::size(cases); pair += 2) {
    const auto beside = std::async(std::launch::async, endsInTime, std::ref(cases[pair]));
    endsInTime(cases[pair + 1]);
  }
}

}  // namespace
