#include <gmock/gmock.h>

#include <regex>
#include <tuple>

#include "tests/support/Eventually.h"
#include "tests/support/Program.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

namespace fs = std::filesystem;

const char* const kParts[] = {"Corvend", "vexild", "kestrane", "kestrane-helper"};

fs::path realPrograms() { return fs::read_symlink("/proc/self/exe").parent_path(); }

/// Whether a process runs: of one that has ended, a zombie may be left.
bool runs(pid_t process) {
  const std::string stat = readFile("/proc/" + std::to_string(process) + "/stat");
  return process > 0 && !stat.empty() && stat.find(") Z ") == std::string::npos;
}

/// The programs of a simulated device, some of them replaced by shell scripts, and its root.
class ScriptedDevice {
 public:
  explicit ScriptedDevice(const Variables& scripts = {}) {
    fs::create_directory(programs);
    fs::create_directory(temporary);
    fs::copy_file(realPrograms() / "kst-simulator", programs / "kst-simulator");
    for (const std::string part : kParts) {
      if (!scripts.contains(part)) {
        fs::create_symlink(realPrograms() / part, programs / part);
      }
    }
    for (const auto& [name, script] : scripts) {
      writeFile(programs / name, "#!/bin/sh\n" + script + "\n");
      fs::permissions(programs / name, fs::perms::owner_all);
    }
  }

  [[nodiscard]] Words command(const std::string& script, const Words& options = {}) const {
    return joined(joined({programs / "kst-simulator", "--root", directory.path}, options),
                  {"--", "sh", "-c", script});
  }

  [[nodiscard]] Variables environment() const {
    return {{"PATH", programs.string() + ":" + std::getenv("PATH")},
            {"REAL", realPrograms()},
            {"TMPDIR", temporary}};
  }

  const TemporaryDirectory directory;
  const fs::path programs = directory / "programs";
  const fs::path temporary = directory / "tmp";  ///< in which the simulator makes its folder
};

TEST(SimulatorTest, OptionsVariablesAndTheCommandDecide) {
  // Of a shell in an empty folder, "$1", with the simulator as "$0" and this tree's data in "$2".
  const struct {
    const char* script;
    int status;
    const char* output = "";
    const char* errors = "";
  } cases[] = {
      {"$0 -- sh -c 'exit 7'", 7},
      {"$0 -- sh -c 'kill -9 $$'", 128 + SIGKILL},
      {"$0 -- /none", 127, "", "kst-simulator: /none: No such file or directory\n"},
      {"$0 -- /dev/null", 126, "", "kst-simulator: /dev/null: Permission denied\n"},
      {"printf '#!/bin/sh\nexit 8' >own; chmod +x own; SHELL=$1/own $0", 8},
      {"echo exit 9 | SHELL= $0", 9},
      {"ln -s /bin/false ksttool; PATH=$1:$PATH $0 -- ksttool --", 0},
      {"$0 --conf none", 125, "", "kst-simulator: cannot read none\n"},
      {"echo 'radio = 0' >conf; $0 --conf conf -- sh -c 'cd /; ksttool; cat $KESTRANE_DEVICE_CONF'",
       0, "'ksttool' is not supported on this product.\nradio = 0\n"},
      {"none='--absent corvend --absent vexild'; $0 $none -- ksttool --; echo $?;"
       "printf 'radio = -1\nproduct = 58' >conf; $0 $none --conf conf -- ksttool --; echo $?;"
       "for o in corvend vexild; do $0 --absent $o -- ksttool --; echo $?; done",
       0,
       "Corvend process is not running. Please run/load Corvend (or vexild) and try again.\n"
       "255\n0\n0\n0\n"},
      {"mkdir root; $0 --root root -- sh -c 'cd /; touch $KESTRANE_ROOT/new'; test -e root/new", 0},
      {"l='ls $KESTRANE_ROOT/var/log'; $0 --absent manager --absent vexild -- sh -c \"$l\";"
       "$0 --absent helper --absent corvend -- sh -c \"$l\"",
       0, "Corvend.log\nkestrane-helper.log\nkestrane.log\nvexild.log\n"},
      {"KESTRANE_COLLECTION_CONF= $0 -- sh -c 'tail -n 1 $KESTRANE_COLLECTION_CONF'", 0,
       "keep_free = 0\n"},
      // The folder must have a short path, and may have an odd one.
      {"mkdir ',;=% b'; TMPDIR=\"$1/,;=% b\" $0 -- true && rmdir ,*", 0},
      {"d=$1/$(printf %80d | tr ' ' d); mkdir $d;"
       "XDG_RUNTIME_DIR=$1 TMPDIR=$d $0 -- sh -c 'echo ${KESTRANE_ROOT%/*/*}'; rmdir $d",
       0, "@\n"},
      {"trap '' PIPE HUP; $0 -- grep -E 'Sig(Blk|Ign)' /proc/self/status", 0,
       "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n"},
      {"trap '' HUP; $0 -- sh -c 'kill -HUP $PPID; exec sleep 20'", 128 + SIGHUP},
      {"for o in --none '--absent nobody' --root --help '--absent manager --help --none'; do "
       "$0 $o >out 2>err; echo $? $(head -c 20 out; echo; head -c 20 err); done; $0 --conf '' 2>&-",
       2,
       "2 usage: kst-simulator\n2 usage: kst-simulator\n2 usage: kst-simulator\n"
       "0 usage: kst-simulator\n0 usage: kst-simulator\n"},
      {"cd ${0%/*}; for p in kestrane kestrane-helper kst-simulator Corvend vexild; do "
       "./$p --help | sed 's/ \\[.*//;q'; ./$p --version | sed 's/[0-9.]*$/N/';"
       "for o in help version; do ./$p --$o >/dev/full 2>&1; printf \"$? \"; done; done",
       0,
       "usage: kestrane\nkestrane N\n1 1 usage: kestrane-helper\nkestrane-helper N\n1 1 "
       "usage: kst-simulator\nkst-simulator N\n1 1 usage: Corvend\nCorvend N\n1 1 "
       "usage: vexild\nvexild N\n1 1 "},
      // The terminal's signals reach the command alone.
      {"setsid -w $0 -- sh -c 'trap : INT QUIT; kill -INT 0; kill -QUIT 0; sleep 0.1;"
       "ksttool logdump tel x | head -n 1'",
       0, "Telephony log collection: Success\n"},
      // The examples can be read as they are, and the limits when they are not left to the default.
      {"(sed 's/^#\\([a-z]\\)/\\1/' $2/collection.conf; echo keep_free = 0) >conf;"
       "KESTRANE_COLLECTION_CONF=$1/conf $0 --conf $2/device.conf -- "
       "sh -c 'cat $KESTRANE_ROOT/var/log/*; ksttool logdump bb | head -n 1'",
       0, "Baseband log collection: Success (KST running)\n"}};
  for (const auto& test : cases) {
    SCOPED_TRACE(test.script);
    const TemporaryDirectory folder;
    const Finished run = runProgram({"sh", "-c", "cd $1;" + std::string(test.script),
                                     realPrograms() / "kst-simulator", folder.path, KST_DATA});
    EXPECT_EQ(run.status, test.status);
    EXPECT_EQ(run.output, std::regex_replace(test.output, std::regex("@"), folder.path));
    EXPECT_EQ(run.errors, test.errors);
  }
}

TEST(SimulatorTest, PartThatEndsTooSoonSaysWhy) {
  const struct {
    std::string part;
    std::string script;
    std::string message;
    std::string written = {};
  } cases[] = {
      {"dbus-daemon", "echo no bus today >&2", "the message bus did not start: no bus today"},
      {"Corvend", "exit 3", "Corvend has ended"},
      {"vexild", "printf 'one\\ntwo\\n' >&2", "vexild has ended: one\ntwo", "one\ntwo\n"}};
  for (const auto& test : cases) {
    SCOPED_TRACE(test.part);
    const ScriptedDevice device(Variables{{test.part, test.script}});
    const fs::path log = device.directory / ("var/log/" + test.part + ".log");
    writeFile(log, "of an earlier run\n");
    const Finished run = runProgram(device.command("echo not reached"), device.environment());
    EXPECT_EQ(run.status, 125);
    EXPECT_EQ(run.output, "");
    EXPECT_EQ(run.errors, "kst-simulator: " + test.message + "\n");
    EXPECT_EQ(readFile(log), "of an earlier run\n" + test.written);
  }
}

TEST(SimulatorTest, EveryWayOutEndsWhatItStarted) {
  for (const int signal : {0, SIGTERM, SIGKILL}) {
    SCOPED_TRACE(signal);
    Program simulator({"kst-simulator", "--", "sh", "-c", "echo $$ $KESTRANE_ROOT; read -r end"});
    const pid_t command = std::stoi(simulator.readUntil(" "));
    std::string root = simulator.readUntil("\n");
    root.pop_back();
    ASSERT_TRUE(fs::is_directory(root));
    kill(simulator.id(), signal);
    simulator.finish();  // ends when everything that holds the pipes has ended
    EXPECT_TRUE(eventually([&] { return !runs(command); }));
    EXPECT_TRUE(eventually([&] { return !fs::exists(root); }));
  }
}

TEST(SimulatorTest, NothingFrozenOrStubbornHoldsUpTheEnd) {
  const std::string begin = "trap '' HUP TERM; touch $0.begun; ";
  const std::string logs = "$2/var/wireless/Library/Logs/Kestrane/TelephonyLog";
  // Without the second part the command is not reached, since one never gets ready.
  for (const auto& [stubborn, ready, begun, status] :
       {std::tuple("Corvend", "mkdir -p " + logs + "; echo line >>" + logs + "/telephony.log; ",
                   "command", 128 + SIGKILL),
        std::tuple("kestrane", std::string(), "kestrane", 128 + SIGTERM)}) {
    SCOPED_TRACE(stubborn);
    const ScriptedDevice device({{stubborn, begin + ready + "while :; do sleep 1; done"}});
    Program simulator(
        joined(device.command(begin + "exec sleep 60"), {device.programs / "command"}),
        device.environment());
    ASSERT_TRUE(eventually(
        [&, name = begun + std::string(".begun")] { return fs::exists(device.programs / name); }));
    std::vector<pid_t> started;
    for (const std::string part : {"dbus-daemon", "Corvend", "vexild", "kestrane"}) {
      ASSERT_TRUE(eventually([&, name = part] { return simulator.child(name) > 0; })) << part;
      started.push_back(simulator.child(part));
      if (part != stubborn) {
        kill(started.back(), SIGSTOP);
      }
    }
    const auto before = std::chrono::steady_clock::now();
    kill(simulator.id(), SIGTERM);
    EXPECT_EQ(simulator.finish(), status);
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(7));
    EXPECT_TRUE(std::none_of(started.begin(), started.end(), runs));
    EXPECT_THAT(namesIn(device.temporary), testing::IsEmpty());
  }
}

}  // namespace
