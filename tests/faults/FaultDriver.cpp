// Drives ksttool while the services and the bus break at random moments:
//
//     fault_driver [SECONDS [SEED [FAULT]]]
//
// breaks them in all ways, or in those whose names contain FAULT.

#include <iostream>
#include <memory>
#include <random>
#include <sstream>

#include "platform/client/HelperClient.h"
#include "tests/faults/Oracle.h"
#include "tests/platform/bus/ScriptedService.h"
#include "tests/platform/bus/SilentBus.h"
#include "tests/support/Eventually.h"

namespace {

using Clock = std::chrono::steady_clock;

/// How long a command may take whatever breaks, and how long it may take until commands succeed
/// when everything is back.
constexpr std::chrono::seconds kLimit(15);
const std::string kPrompt = "(/ksttool)>> ";
const std::string kRefusal = "Server is not running. Please try after server starts.\n";

int seconds = 20;
unsigned seed = std::random_device()();
std::string only;  // the faults whose names contain it

enum class Kind { kReal, kScripted, kAtStart };  // the last: comes before a tool is started

struct Fault {
  std::string name;
  Kind kind;
  Outcomes struck;      // allowed to the command that it meets
  Outcomes afterwards;  // and to a tool that starts then
  std::function<void()> strike;
  std::function<void()> release = {};  // ends what holds commands up without a limit
};

bool helperAnswers() {
  MessageDict reply;
  return kst::HelperClient::create("driver", {})
             ->perform(kst::helper::TaskID::kSyscollect, "AreYouThere", {}, reply)
             .status == kst::kResultUnknownCommand;
}

class FaultDriver : public testing::Test {
 protected:
  FaultDriver() {
    writeFile(folder / "device.conf",
              "radio = 1\ninternal_build = 1\ntrace.BasebandTrace.Enabled = 1\n");
    writeFile(folder / "collection.conf", "keep_free = 0\nmax_snapshots = 20\n");
  }

  int random(int below) { return std::uniform_int_distribution(0, below - 1)(engine); }
  template <typename Container>
  const auto& oneOf(const Container& all) {
    return *(std::begin(all) + random(static_cast<int>(std::size(all))));
  }
  void pause(int longest) {
    std::this_thread::sleep_for(std::chrono::milliseconds(random(longest + 1)));
  }

  /// In the place of the bus comes one that falls silent on each connection, the next one of which
  /// gets a random number of answers.
  void mute() {
    killBus();
    std::filesystem::remove(busAddress.substr(busAddress.find('/')));
    silentBus = std::make_unique<SilentBus>();
    for (int left = random(5); left > 0; --left) {
      sd_bus* opened = nullptr;
      sd_bus_open_system(&opened);
      sd_bus_close_unref(opened);
    }
  }

  void killBus() {
    bus.kill();
    helper.reset();
    kestrane.reset();
  }

  void start(std::unique_ptr<Program>& service, const std::string& program) {
    service.reset();  // which frees its name
    service = std::make_unique<Program>(Words{program, "--root", folder.path}, environment);
  }

  /// A manager takes over, which may answer.
  void takeOver(bool answers = true) {
    const std::string stamps = "manager" + std::to_string(++managerCount) + "-";
    const auto perform = [=, count = 0](sd_bus_message* call) mutable {
      const char* command = "";
      sd_bus_message_read(call, "ss", nullptr, &command);
      const bool isQuestion = command == std::string(kst::kCommandGetTraceProperty);
      const std::string text = isQuestion ? "true" : stamps + std::to_string(++count);
      if (answers) {
        sd_bus_reply_method_return(
            call, "isv", 0, "", "a{sv}", 1,
            isQuestion ? kst::kKeyTracePropertyValue : kst::kKeyTimestampString, "s", text.c_str());
      }
    };
    managers.push_back(std::make_unique<ScriptedService>(dbus::kManager, perform));
    oracle.stamps += (oracle.stamps.empty() ? "" : "|") + stamps + "[0-9]+";
  }

  std::vector<Fault> faults() {
    using enum Kind;
    const auto freeze = [](const auto& part) { return [&part] { kill(part->id(), SIGSTOP); }; };
    std::vector<Fault> list = {
        {"manager-kill", kReal, kAny, kGone, [&] { kestrane.reset(); }},
        {"manager-freeze", kReal, kAnswered, 0, freeze(kestrane),
         [&] { kill(kestrane->id(), SIGCONT); }},
        {"manager-freeze-kill", kReal, kAny, kGone, freeze(kestrane), [&] { kestrane.reset(); }},
        {"manager-silent", kAtStart, 0, kTelRefused | kBbFailed, freeze(kestrane)},
        {"manager-restart", kReal, kAny, kAny,
         [&] { kill(kestrane->id(), SIGTERM), kestrane->finish(), start(kestrane, "kestrane"); }},
        {"helper-kill", kReal, kAny, kAllGone, [&] { helper.reset(), kestrane.reset(); }},
        {"helper-freeze", kReal, kAny, kAllGone, [&] { freeze(helper)(), kestrane.reset(); }},
        {"helper-restart", kReal, kAny, kGone | kAllGone,
         [&] { kestrane.reset(), start(helper, "kestrane-helper"); }},
        {"bus-kill", kReal, kAny, kAllGone, [&] { killBus(); }},
        {"bus-freeze", kReal, kAnswered, 0, [&] { bus.freeze(); }, [&] { bus.thaw(); }},
        {"bus-freeze-kill", kReal, kAny, kAllGone, [&] { bus.freeze(); }, [&] { killBus(); }},
        {"bus-silent", kAtStart, 0, kAllGone, [&] { bus.freeze(); }},
        {"bus-falls-silent", kReal, kAny, kAllGone | kBbFailed, [&] { mute(); }},
        {"bus-falls-silent-hangs-up", kReal, kAny, 0, [&] { mute(); }, [&] { silentBus.reset(); }},
        {"reply-never", kScripted, kAny, 0, [&] { takeOver(false); }, [&] { managers.clear(); }},
        {"scripted-handover", kScripted, kAnswered | kTelRefused, kAnswered | kTelRefused,
         [&] { takeOver(); }},
        {"scripted-stopping", kScripted, kAnswered | kTelRefused, kTelRefused | kBbAnswered,
         [&] { managers.back()->setState("Stopping"); }}};
    std::erase_if(list,
                  [](const Fault& fault) { return fault.name.find(only) == std::string::npos; });
    return list;
  }

  /// Brings back what is broken, with the manager that the fault needs.
  void heal(const Fault& fault) {
    if (!helper && !kestrane) {
      silentBus.reset();
      bus.kill();
      bus.start();
    }
    bus.thaw();
    managers.clear();
    oracle.stamps.clear();
    if (fault.kind == Kind::kScripted) {
      kestrane.reset();
      takeOver();
    } else {
      kestrane ? void(kill(kestrane->id(), SIGCONT)) : start(kestrane, "kestrane");
      oracle.stamps = kRealStamps;
    }
    helper ? void(kill(helper->id(), SIGCONT)) : start(helper, "kestrane-helper");
    ASSERT_TRUE(eventually([] { return helperAnswers(); }));
  }

  /// What becomes of a command that a tool with a prompt was given.
  Outcomes outcomeOf(Program& tool, const std::string& command, Outcomes allowed) {
    const std::string output = tool.readUntil(kPrompt);
    const Outcomes outcome =
        oracle.judge(command, output.substr(0, output.size() - kPrompt.size()), allowed);
    refusals += outcome == kTelRefused ? kRefusal : "";
    return outcome;
  }

  /// Gives commands until two were answered, as all must be from then on: the first may have been
  /// sent before the tool heard of a new manager.
  void confirm(Program& tool) {
    const auto limit = Clock::now() + kLimit;
    for (int answers = 0; answers < 2 && !HasFailure();) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      tool.write("logdump tel\n");
      answers = outcomeOf(tool, "logdump tel", kAny) == kTelAnswered ? answers + 1 : 0;
      EXPECT_TRUE(answers > 0 || Clock::now() < limit) << "everything is back";
    }
  }

  /// Breaks something under a command of the tool with a prompt, or of one without.
  void round(Program& tool, const Fault& fault) {
    SCOPED_TRACE(fault.name + ", seed " + std::to_string(seed));
    heal(fault);
    confirm(tool);
    ++oracle.counts["struck by " + fault.name];
    const bool isOneShot = fault.kind == Kind::kAtStart || random(3) == 0;
    const bool strikesFirst = fault.kind == Kind::kAtStart || random(2) == 0;
    const std::string commands[] = {"logdump tel", "logdump tel nocompress x", "logdump bb",
                                    "logdump bb nocompress x"};
    const std::string command = oneOf(commands);
    const auto begun = Clock::now();
    if (strikesFirst) {
      fault.strike();
    }
    std::optional<Program> once;
    if (isOneShot) {
      std::istringstream words(command);
      once.emplace(joined({"ksttool"}, {std::istream_iterator<std::string>(words), {}}),
                   environment);
    } else {
      tool.write(command + "\n");
    }
    if (!strikesFirst) {
      pause(isOneShot ? 700 : 40);
      fault.strike();
    }
    if (fault.release) {
      pause(200);
      fault.release();
    }
    if (once) {
      const int status = once->finish();
      const Outcomes outcome = oracle.judge(
          command, once->output,
          strikesFirst && !fault.release ? fault.afterwards : fault.struck | kTelRefused);
      EXPECT_EQ(once->errors, outcome == kTelRefused ? kRefusal : "");
      // A failure of either question looks alike.
      EXPECT_TRUE(status == (outcome == kTelRefused ? 1 : 0) ||
                  once->output.starts_with("Baseband log collection: Failed"));
    } else {
      outcomeOf(tool, command, fault.struck);
    }
    EXPECT_LT(Clock::now() - begun, kLimit);
  }

  std::mt19937 engine{seed};
  const TemporaryDirectory folder;
  const Variables environment = {{"KESTRANE_DEVICE_CONF", folder / "device.conf"},
                                 {"KESTRANE_COLLECTION_CONF", folder / "collection.conf"}};
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(seconds);
  PrivateBus bus;
  const std::string busAddress = getenv("DBUS_SYSTEM_BUS_ADDRESS");
  std::unique_ptr<SilentBus> silentBus;
  std::unique_ptr<Program> vexild;
  std::unique_ptr<Program> kestrane;
  std::unique_ptr<Program> helper;
  std::vector<std::unique_ptr<ScriptedService>> managers;
  int managerCount = 0;

  Oracle oracle;
  std::string refusals;  // told by the tool with a prompt
};

TEST_F(FaultDriver, EveryCommandHasOneOutcome) {
  const std::vector<Fault> list = faults();
  ASSERT_FALSE(list.empty());
  start(vexild, "vexild");
  heal(list[0]);
  ASSERT_TRUE(eventually([&] { return runProgram({"ksttool", "help"}, environment).status == 0; }));
  while (Clock::now() < deadline && !HasFailure()) {
    refusals = "";
    Program tool({"ksttool"}, environment);
    tool.readUntil(kPrompt);
    for (int more = random(10); more >= 0 && Clock::now() < deadline && !HasFailure(); --more) {
      round(tool, oneOf(list));
    }
    if (HasFailure()) {
      break;
    }
    tool.write("quit\n");
    EXPECT_EQ(tool.finish(), 0);
    EXPECT_EQ(tool.output, "");
    EXPECT_EQ(tool.errors, refusals);
  }
  for (const auto& [what, count] : oracle.counts) {
    std::cout << count << " " << what << std::endl;
  }
}

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  seconds = argc > 1 ? std::stoi(argv[1]) : seconds;
  seed = argc > 2 ? static_cast<unsigned>(std::stoul(argv[2])) : seed;
  only = argc > 3 ? argv[3] : "";
  std::cout << "fault_driver " << seconds << " " << seed << std::endl;
  return RUN_ALL_TESTS();
}
