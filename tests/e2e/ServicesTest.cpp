#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/resource.h>

#include <future>
#include <memory>
#include <set>

#include "collection/DevicePaths.h"
#include "platform/client/Constants.h"
#include "platform/dbus/BlockingCall.h"
#include "tests/e2e/Device.h"
#include "tests/support/Eventually.h"

namespace {

namespace fs = std::filesystem;
using kst::support::Descriptor;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

using Answer = std::future<std::int32_t>;

/// The status of a call, which is waited for so many seconds.
std::int32_t call(const dbus::Peer& peer, const dbus::Command& command, int patience = 30) {
  std::optional<MessageValue> reply;
  return dbus::callBlocking(peer, command, std::chrono::seconds(patience), reply).status;
}

/// Has the manager collect telephony logs.
std::int32_t collect(bool compress = true, int patience = 30) {
  MessageDict request;
  request.set(kst::kKeyTraceAction, kst::kCollectTelephonyLogs);
  request.set(kst::kKeyTraceDumpStatePerformCompression, compress);
  return call(dbus::kManager, {"test", 0, kst::kCommandTraceDumpState, request}, patience);
}

/// Has the helper collect, if that is its task.
std::int32_t helper(const MessageValue& timeout, std::int32_t task = 5, int patience = 30) {
  MessageDict request;
  request.set(kst::helper::kKeyTimeout, timeout);
  return call(dbus::kHelper, {"test", task, kst::helper::kCommandSyscollectStatus, request},
              patience);
}

/// Three calls at once, of which one is worked for, one waits and one is refused already.
template <typename Call>
std::vector<Answer> callThrice(Call call) {
  std::vector<Answer> answers;
  for (int number = 0; number < 3; ++number) {
    answers.push_back(std::async(std::launch::async, call));
  }
  EXPECT_TRUE(eventually([&] {
    return std::any_of(answers.begin(), answers.end(), [](const Answer& answer) {
      return answer.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    });
  }));
  return answers;
}

/// Two of them end in this way.
void expectTwo(std::int32_t status, std::vector<Answer>& answers) {
  std::multiset<std::int32_t> statuses;
  for (Answer& answer : answers) {
    statuses.insert(answer.get());
  }
  EXPECT_EQ(statuses, (std::multiset{kst::kResultBusy, status, status}));
}

/// A device whose services the test starts itself, without daemons but with some logs.
class ServicesTest : public testing::Test {
 protected:
  ServicesTest() {
    writeFile(paths.telephonyLogs + "/telephony.log", "call\n");
    writeFile(paths.basebandLogs + "/diag.log", std::string(200'000, 'd'));
    configure("keep_free = 0\nmax_waiting = 1\n");
    // NOLINTNEXTLINE(concurrency-mt-unsafe): read by threads that begin later
    setenv("DBUS_SYSTEM_BUS_ADDRESS", device.environment["DBUS_SYSTEM_BUS_ADDRESS"].c_str(), 1);
  }

  void configure(const std::string& limits) {
    device.environment["KESTRANE_COLLECTION_CONF"] = root / "collection.conf";
    writeFile(root / "collection.conf", limits);
  }

  static int stop(Program& service) {
    kill(service.id(), SIGTERM);
    return service.finish();
  }

  /// Ends a service, which has nothing to complain of, nor has a sanitizer.
  struct Stop {
    void operator()(Program* service) const {
      const std::unique_ptr<Program> owned(service);
      if (service->id() > 0) {
        EXPECT_EQ(stop(*service), 0) << service->errors;
      }
    }
  };

  /// Starts a service, after what a shell is to do, and waits until it takes calls.
  std::unique_ptr<Program, Stop> start(const std::string& program = "kestrane",
                                       const std::string& setup = "") {
    const Words words = {"sh", "-c", setup + R"(exec "$0" --root "$1")", program, root};
    std::unique_ptr<Program, Stop> service(new Program(words, device.environment));
    EXPECT_TRUE(eventually([&] {
      return call(program == "kestrane" ? dbus::kManager : dbus::kHelper,
                  {"test", 0, "Hello", {}}) == kst::kResultUnknownCommand;
    }));
    return service;
  }

  /// Keeps every service from collecting until it is closed.
  [[nodiscard]] Descriptor holdStaging() const {
    fs::create_directories(paths.staging);
    Descriptor folder(open(paths.staging.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    EXPECT_EQ(flock(folder.get(), LOCK_EX), 0);
    return folder;
  }

  Device device{{"manager", "helper", "corvend", "vexild"}};
  const fs::path root = device.environment.at("KESTRANE_ROOT");
  const collection::DevicePaths paths{root};
};

TEST_F(ServicesTest, WhoHasLeftIsNotWorkedForAndWhoIsTooManyIsRefused) {
  const auto service = start();
  Descriptor held = holdStaging();
  std::vector<Answer> answers = callThrice([] { return collect(true, 2); });
  expectTwo(kst::kResultReplyLost, answers);
  // Not before the bus has told that they have left.
  Answer last;
  EXPECT_TRUE(eventually([&] {
    last = std::async(std::launch::async, collect, true, 30);
    return last.wait_for(std::chrono::milliseconds(200)) == std::future_status::timeout;
  }));
  held.close();
  EXPECT_EQ(last.get(), 0);
  EXPECT_THAT(namesIn(paths.snapshots), SizeIs(1));
}

TEST_F(ServicesTest, AServiceThatIsToEndOrLosesItsBusRefusesBreaksOffAndLeavesNothing) {
  fs::resize_file(paths.basebandLogs + "/diag.log", std::uintmax_t{1} << 40);
  for (const int signal : {SIGTERM, SIGINT, 0}) {
    SCOPED_TRACE(signal);
    const auto service = start();
    std::vector<Answer> answers = callThrice([] { return collect(false); });
    ASSERT_TRUE(eventually([&] { return fs::exists(paths.dumpIndication); }));
    if (signal != 0) {
      kill(service->id(), signal);
    } else {
      device.killBus();
    }
    EXPECT_EQ(service->finish(), signal != 0 ? 0 : 1);
    EXPECT_EQ(service->errors.find("kestrane: the bus is gone\n") != std::string::npos,
              signal == 0);
    expectTwo(signal != 0 ? kst::kResultStopping : kst::kResultReplyLost, answers);
    EXPECT_THAT(namesIn(paths.staging), IsEmpty());
    EXPECT_THAT(namesIn(paths.snapshots), IsEmpty());
    EXPECT_FALSE(fs::exists(paths.dumpIndication));
  }
}

TEST_F(ServicesTest, WhatAServiceInheritsDoesItNoHarm) {
  // Standard error is a pipe that nobody reads.
  const auto service = start("kestrane", R"(mkfifo "$1/pipe"; exec 3<>"$1/pipe" 2>"$1/pipe" 3<&-;)"
                                         "umask 077; ulimit -f 100; ulimit -S -n 64;");
  EXPECT_EQ(collect(false), kst::kResultNoRoom);
  EXPECT_EQ(collect(), 0);
  EXPECT_EQ(fs::status(fs::path(paths.snapshots).parent_path()).permissions(), fs::perms(0755));
  rlimit descriptors{};
  prlimit(service->id(), RLIMIT_NOFILE, nullptr, &descriptors);
  EXPECT_EQ(descriptors.rlim_cur, std::min<rlim_t>(descriptors.rlim_max, 8192));
}

TEST_F(ServicesTest, TheHelperAnswersInTimeAndKeepsWhatIsLateForTheNextCall) {
  const auto service = start("kestrane-helper");
  const auto answers = [](std::int64_t timeout, std::int32_t status, int patience = 30) {
    return eventually([=] { return helper(timeout, 5, patience) == status; });
  };
  EXPECT_EQ(helper(10L, 4), kst::kResultUnknownCommand);
  EXPECT_EQ(helper("soon"), kst::kResultInvalidRequest);
  Descriptor held = holdStaging();
  const auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(helper({}), kst::kResultStillCollecting);
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(1500));
  // Who has left does not count, neither among those who wait nor as one who is answered.
  for (int call = 0; call < 3; ++call) {
    EXPECT_TRUE(answers(60'000, kst::kResultReplyLost, 1));
  }
  EXPECT_TRUE(answers(-1, kst::kResultStillCollecting));
  EXPECT_TRUE(answers(60'000, kst::kResultReplyLost, 1));
  held.close();
  ASSERT_TRUE(eventually([&] { return !namesIn(paths.snapshots).empty(); }));
  EXPECT_EQ(helper(5000L), 0);
  EXPECT_THAT(namesIn(paths.snapshots), SizeIs(1));

  held = holdStaging();
  std::vector<Answer> waiting = callThrice([] { return helper(20'000L); });
  held.close();
  expectTwo(0, waiting);
  EXPECT_THAT(namesIn(paths.snapshots), SizeIs(2));

  // A failure is not worth keeping.
  held = holdStaging();
  EXPECT_EQ(helper(10L), kst::kResultStillCollecting);
  fs::remove_all(paths.snapshots);
  held.close();
  EXPECT_TRUE(fs::exists("/run/systemd/journal/socket") || eventually([&] {
                const std::string errors = "/proc/" + std::to_string(service->id()) + "/fd/2";
                return readFile(errors).find(": no collection for test (") != std::string::npos;
              }));
  EXPECT_EQ(helper(5000L), 0);
}

TEST_F(ServicesTest, WhatIsBrokenIsReportedAndACollectionIsOnRecord) {
  configure("max_total = much\nkeep_free = 0\nlonely\n");
  fs::create_directories(fs::path(paths.staging).parent_path());
  fs::create_directory_symlink(root, paths.staging);
  const auto hindered = start();
  EXPECT_EQ(stop(*hindered), 0);
  EXPECT_THAT(hindered->errors, HasSubstr("kst.workspace/uncompressed"));
  fs::remove(paths.staging);

  writeFile(paths.staging + "/snapshot/log", "of one that was killed");
  const auto service = start();
  EXPECT_TRUE(eventually([&] { return namesIn(paths.staging).empty(); }));
  EXPECT_EQ(collect(), 0);
  EXPECT_EQ(stop(*service), 0);
  EXPECT_THAT(service->errors, HasSubstr("cannot be read: max_total = much\n"));
  EXPECT_THAT(service->errors, HasSubstr("cannot be read: lonely\n"));
  const std::string record = "\nkestrane: uid " + std::to_string(geteuid()) + ", pid " +
                             std::to_string(getpid()) + ": collected " + paths.snapshots;
  EXPECT_TRUE(fs::exists("/run/systemd/journal/socket") ||
              service->errors.find(record) != std::string::npos);
}

TEST_F(ServicesTest, WhatCannotStartSaysWhy) {
  const auto manager = start();
  const auto helping = start("kestrane-helper");
  const std::string file = root / "file";
  writeFile(file, "");
  const std::string elsewhere = "DBUS_SYSTEM_BUS_ADDRESS=unix:path=" + file;
  const std::tuple<Words, int, std::string> cases[] = {
      {{"kestrane", "--root", root}, 1, "kestrane: org.kestrane.Manager1: "},
      {{"kestrane-helper", "--root", root}, 1, "kestrane-helper: org.kestrane.Helper1: "},
      {{"env", elsewhere, "kestrane"}, 1, "kestrane: system bus: "},
      {{"kestrane", "root"}, 2, "usage: kestrane [--root DIR | --help"},
      {{"kestrane", "--root", ""}, 2, "usage: kestrane [--root DIR | --help"},
      {{"kestrane", "--root", root, "--keep", "3"}, 2, "usage: kestrane [--root DIR | --help"},
      {{"kestrane-helper", "--root"}, 2, "usage: kestrane-helper [--root DIR | --help"},
      {{"Corvend", "--root"}, 2, "usage: "},
      {{"vexild", "--toor", root}, 2, "usage: "},
      {{"vexild", "--root", file}, 1, "vexild: mkdir"}};
  for (const auto& [words, status, errors] : cases) {
    SCOPED_TRACE(testing::PrintToString(words));
    const Finished run = runProgram(words, device.environment);
    EXPECT_EQ(run.status, status);
    EXPECT_THAT(run.errors, testing::StartsWith(errors));
    EXPECT_EQ(std::count(run.errors.begin(), run.errors.end(), '\n'), 1);
  }
}

TEST(ServicesUserTest, AnOrdinaryUserIsEnough) {
  const fs::path programs = fs::read_symlink("/proc/self/exe").parent_path();
  const Words asNobody = {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
  if (geteuid() != 0 ||
      runProgram(joined(asNobody, {"test", "-x", programs / "kestrane"})).status != 0) {
    GTEST_SKIP() << "is one already, or one does not reach the programs";
  }
  const Finished run = runProgram(
      joined(asNobody, {programs / "kst-simulator", "--", "sh", "-c",
                        "ksttool logdump tel x -- logdump core nocompress y -- logdump bb"}));
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_THAT(run.output, HasSubstr("with Coredump: Success"));
}

}  // namespace
