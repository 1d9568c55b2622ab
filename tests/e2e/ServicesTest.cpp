#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <random>
#include <regex>
#include <thread>

#include "platform/client/Constants.h"
#include "platform/client/HelperClient.h"
#include "platform/client/ManagerClient.h"
#include "support/Descriptor.h"
#include "tests/e2e/Device.h"
#include "tests/e2e/Eventually.h"
#include "tests/e2e/Files.h"
#include "trace/Trace.h"

namespace {

namespace fs = std::filesystem;
using kst::support::Descriptor;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr uid_t kNobody = 65534;

using Answer = std::future<CommandResult>;

MessageDict collection(bool compress = true) {
  MessageDict request;
  request.set(kst::kKeyTraceAction, kst::kCollectTelephonyLogs);
  request.set(kst::kKeyTraceDumpStatePerformCompression, compress);
  return request;
}

/// One connection to the bus of a device.
class Client {
 public:
  explicit Client(const Device& device) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): read by this thread when it makes the client
    setenv("DBUS_SYSTEM_BUS_ADDRESS", device.environment.at("DBUS_SYSTEM_BUS_ADDRESS").c_str(), 1);
    manager = kst::client::CreateManager("test", TaskQueue::create("test"));
  }

  [[nodiscard]] Answer send(const MessageDict& request,
                            const std::string& command = kst::kCommandTraceDumpState) const {
    auto promise = std::make_shared<std::promise<CommandResult>>();
    kst::client::PerformCommand(
        manager, command,
        [promise](const CommandResult& result, const MessageValue&) { promise->set_value(result); },
        request);
    return promise->get_future();
  }

  /// Has telephony logs collected; the status of that.
  [[nodiscard]] std::int32_t collect(bool compress = true) const {
    return send(collection(compress)).get().status;
  }

 private:
  std::shared_ptr<ManagerClient> manager;
};

/// A device whose services the test starts itself, without daemons but with some logs.
class ServicesTest : public testing::Test {
 protected:
  ServicesTest() {
    writeFile(telephony / "telephony.log", "call\n");
    writeFile(baseband / "diag.log", std::string(200'000, 'd'));
    configure("keep_free = 0\n");
  }

  void configure(const std::string& limits) {
    device.environment["KESTRANE_COLLECTION_CONF"] = root / "collection.conf";
    writeFile(root / "collection.conf", limits);
  }

  /// Starts a service and waits until it takes calls.
  std::unique_ptr<Program> start(const std::string& program = "kestrane") {
    auto service = std::make_unique<Program>(Words{program, "--root", root}, device.environment);
    EXPECT_TRUE(eventually([&] {
      return program == "kestrane"
                 ? client.send({}, "Hello").get().status == kst::kResultUnknownCommand
                 : helper(0, "Hello") == kst::kResultUnknownCommand;
    }));
    return service;
  }

  /// The status of a call of the helper, by default one that collects.
  static std::int32_t helper(std::int64_t timeout,
                             const std::string& command = kst::helper::kCommandSyscollectStatus) {
    MessageDict request;
    request.set(kst::helper::kKeyTimeout, timeout);
    MessageDict reply;
    return kst::HelperClient::create("test", {})
        ->perform(kst::helper::TaskID::kSyscollect, command, request, reply)
        .status;
  }

  static int stop(Program& service) {
    kill(service.id(), SIGTERM);
    return service.finish();
  }

  /// Keeps every service from collecting until it is closed.
  [[nodiscard]] Descriptor holdStaging() const {
    fs::create_directories(staging);
    Descriptor folder(open(staging.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    EXPECT_EQ(flock(folder.get(), LOCK_EX), 0);
    return folder;
  }

  /// Whether all that the snapshot says to hold is there.
  static bool isWhole(const fs::path& snapshot) {
    if (fs::is_directory(snapshot)) {
      return readFile(snapshot / "kst-info.txt").find("Files: 2\n") != std::string::npos &&
             fs::file_size(snapshot / "DIAG.scratch/diag.log") == 200'000;
    }
    const std::string zip = readFile(snapshot);
    return zip.size() > 22 && zip.compare(zip.size() - 22, 4, "PK\5\6") == 0;
  }

  Device device{{"manager", "helper", "corvend", "vexild"}};
  const fs::path root = device.environment.at("KESTRANE_ROOT");
  const fs::path telephony = device.below(std::string(kst::trace::kScratchFolder) + "TelephonyLog");
  const fs::path baseband = device.below(std::string(kst::trace::kScratchFolder) + "DIAG.scratch");
  const fs::path staging = device.below(kst::trace::kUncompressedFolder);
  const fs::path snapshots = device.below(kst::trace::kSnapshotFolder);
  const fs::path indication = device.below(kst::trace::kDumpIndicationFilePath);
  const Client client{device};
};

TEST_F(ServicesTest, WhoHasLeftIsNotWorkedForAndWhoIsTooManyIsRefused) {
  configure("keep_free = 0\nmax_waiting = 2\n");
  const auto service = start();
  Descriptor held = holdStaging();
  {
    const Client leaving(device);
    std::vector<Answer> answers;
    for (int number = 0; number < 3; ++number) {
      answers.push_back(leaving.send(collection()));
    }
    EXPECT_EQ(leaving.collect(), kst::kResultBusy);
  }
  // Not before the bus has told that the other one has left.
  Answer answer;
  EXPECT_TRUE(eventually([&] {
    answer = client.send(collection());
    return answer.wait_for(std::chrono::milliseconds(200)) == std::future_status::timeout;
  }));
  held.close();
  EXPECT_EQ(answer.get().status, 0);
  EXPECT_THAT(entriesOf(snapshots), SizeIs(1));
}

TEST_F(ServicesTest, AServiceThatIsToldToEndRefusesBreaksOffAndLeavesNothing) {
  const auto service = start();
  writeFile(baseband / "huge", "x");
  fs::resize_file(baseband / "huge", std::uintmax_t{1} << 40);
  std::vector<Answer> answers;
  for (int number = 0; number < 3; ++number) {
    answers.push_back(client.send(collection(false)));
  }
  ASSERT_TRUE(eventually([&] { return fs::exists(indication); }));
  EXPECT_EQ(stop(*service), 0);
  for (Answer& answer : answers) {
    EXPECT_EQ(answer.get().status, kst::kResultStopping);
  }
  EXPECT_THAT(entriesOf(staging), IsEmpty());
  EXPECT_THAT(entriesOf(snapshots), IsEmpty());
  EXPECT_FALSE(fs::exists(indication));
}

TEST_F(ServicesTest, WhatTheHelperHasReadyTooLateIsForTheNextCall) {
  const auto service = start("kestrane-helper");
  Descriptor held = holdStaging();
  for (int call = 0; call < 2; ++call) {
    EXPECT_EQ(helper(10), kst::kResultStillCollecting);
  }
  held.close();
  ASSERT_TRUE(eventually([&] { return !entriesOf(snapshots).empty(); }));
  EXPECT_EQ(helper(5000), 0);
  EXPECT_THAT(entriesOf(snapshots), SizeIs(1));
  EXPECT_EQ(helper(5000), 0);
  EXPECT_THAT(entriesOf(snapshots), SizeIs(2));
}

TEST_F(ServicesTest, ManagerAndHelperTakeTurns) {
  const auto manager = start();
  const auto helping = start("kestrane-helper");
  constexpr std::size_t kRounds = 10;
  std::thread other([] {
    for (std::size_t round = 0; round < kRounds; ++round) {
      EXPECT_EQ(helper(20'000), 0);
    }
  });
  for (std::size_t round = 0; round < kRounds; ++round) {
    EXPECT_EQ(client.collect(false), 0);
  }
  other.join();
  EXPECT_THAT(entriesOf(snapshots), SizeIs(2 * kRounds));
}

TEST_F(ServicesTest, NoKillLeavesHalfASnapshot) {
  std::minstd_rand random(static_cast<unsigned>(testing::UnitTest::GetInstance()->random_seed()));
  std::uniform_int_distribution<int> microseconds(0, 20'000);
  for (int round = 0; round < 30; ++round) {
    const auto service = start();
    Answer answer = client.send(collection(round % 2 == 0));
    usleep(static_cast<useconds_t>(microseconds(random)));
    kill(service->id(), SIGKILL);
    service->finish();
    answer.get();
    for (const fs::path& snapshot : entriesOf(snapshots)) {
      EXPECT_TRUE(isWhole(snapshot)) << snapshot;
    }
  }
  const auto service = start();
  EXPECT_EQ(client.collect(), 0);
  EXPECT_THAT(entriesOf(staging), IsEmpty());
  EXPECT_FALSE(fs::exists(indication));
}

TEST_F(ServicesTest, WhatIsBrokenIsReportedAndACollectionIsOnRecord) {
  configure("max_total = much\nkeep_free = 0\nlonely\n");
  const auto service = start();
  MessageDict broken = collection();
  broken.set(kst::kKeyTraceDumpStatePerformCompression, "yes");
  EXPECT_EQ(client.send(broken).get().status, kst::kResultInvalidRequest);
  EXPECT_EQ(client.collect(), 0);
  EXPECT_EQ(stop(*service), 0);
  EXPECT_THAT(service->errors, HasSubstr("cannot be read: max_total = much\n"));
  EXPECT_THAT(service->errors, HasSubstr("cannot be read: lonely\n"));
  if (!fs::exists("/run/systemd/journal/socket")) {
    const std::regex record("\nkestrane: uid " + std::to_string(geteuid()) + ", pid " +
                            std::to_string(getpid()) + ": collected .*-telephony\\.zip for test");
    EXPECT_TRUE(std::regex_search(service->errors, record)) << service->errors;
  }
}

/// Gives a log folder to another user, with what he exchanges in it.
void giveAway(const fs::path& folder, const fs::path& outside) {
  for (const char* file : {"file", "folder/secret", "folder/deeper/secret"}) {
    writeFile(folder / file, "mine");
  }
  fs::create_symlink(outside / "secret", folder / "link");
  fs::create_symlink(outside, folder / "linked");
  fs::create_symlink(outside, folder / "folder/linked");
  mkfifo((folder / "fifo").c_str(), 0666);
  for (const char* name : {".", "file", "folder", "folder/deeper", "folder/linked", "fifo"}) {
    ASSERT_EQ(lchown((folder / name).c_str(), kNobody, kNobody), 0);
  }
}

/// What he does with it until he is killed: exchanges entries for links out of it and back. The
/// child of a process with threads, it allocates nothing.
[[noreturn]] void attack(const fs::path& folder) {
  if (setgid(kNobody) != 0 || setuid(kNobody) != 0 || chdir(folder.c_str()) != 0) {
    _exit(1);
  }
  const std::pair<const char*, const char*> pairs[] = {
      {"file", "link"}, {"folder", "linked"}, {"folder/deeper", "folder/linked"}, {"file", "fifo"}};
  for (std::size_t turn = 0;; ++turn) {
    const auto& [left, right] = pairs[turn % std::size(pairs)];
    renameat2(AT_FDCWD, left, AT_FDCWD, right, RENAME_EXCHANGE);
  }
}

TEST_F(ServicesTest, TheOwnerOfALogFolderGetsNothingOfAnybodyElses) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "takes two users";
  }
  configure("keep_free = 0\nmax_snapshots = 4\n");
  const auto service = start();
  const fs::path outside = root / "outside";
  writeFile(outside / "secret", "SECRET");
  fs::permissions(outside / "secret", fs::perms::owner_read);
  // The temporary folder of the device is its user's alone.
  fs::permissions(root.parent_path(), fs::perms::others_exec, fs::perm_options::add);
  giveAway(telephony, outside);
  const pid_t attacker = fork();
  if (attacker == 0) {
    attack(telephony);
  }
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody sets it
  const char* const seconds = std::getenv("KST_ATTACK_SECONDS");
  const auto end = std::chrono::steady_clock::now() +
                   std::chrono::seconds(seconds != nullptr ? std::stoi(seconds) : 2);
  int collections = 0;
  for (; std::chrono::steady_clock::now() < end; ++collections) {
    EXPECT_EQ(client.collect(false), 0);
    for (const auto& entry : fs::recursive_directory_iterator(snapshots)) {
      ASSERT_FALSE(entry.is_symlink());
      EXPECT_TRUE(!entry.is_regular_file() || readFile(entry).find("SECRET") == std::string::npos)
          << entry;
    }
  }
  kill(attacker, SIGKILL);
  int status = 0;
  waitpid(attacker, &status, 0);
  EXPECT_TRUE(WIFSIGNALED(status)) << "the attacker did not get to it";
  EXPECT_GT(collections, 1);
  EXPECT_EQ(readFile(outside / "secret"), "SECRET");
}

TEST(ServicesUserTest, AnOrdinaryUserIsEnough) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "is one already";
  }
  const fs::path programs = fs::read_symlink("/proc/self/exe").parent_path();
  const Words asNobody = {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
  if (runProgram(joined(asNobody, {"test", "-x", programs / "kestrane"})).status != 0) {
    GTEST_SKIP() << "an ordinary user does not reach the programs";
  }
  const Finished run = runProgram(
      joined(asNobody, {programs / "kst-simulator", "--", "sh", "-c",
                        "ksttool logdump tel x -- logdump core nocompress y -- logdump bb"}));
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_THAT(run.output, HasSubstr("Telephony log collection: Success"));
  EXPECT_THAT(run.output, HasSubstr("with Coredump: Success"));
  EXPECT_THAT(run.output, HasSubstr("Baseband log collection: Success"));
}

}  // namespace
