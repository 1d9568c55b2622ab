#include "collection/Collector.h"

#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <functional>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "tests/collection/DeviceTest.h"

namespace collection {
namespace {

using kst::support::Descriptor;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

constexpr std::size_t kBuffer = 1 << 18;  // of a read

/// Bytes that cannot be compressed.
std::string noise(std::size_t size) {
  std::mt19937 random(1);
  std::string bytes(size, '\0');
  std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
  return bytes;
}

class CollectorTest : public DeviceTest {
 protected:
  CollectorTest() {
    makeFile("device.conf", "radio_vendor = 1");
    makeLog("TelephonyLog/telephony.log", "call\n");
    makeLog("TelephonyLog/older/telephony.1", "older call\n");
    makeLog(kDiag, std::string(100'000, 'd'));
  }

  CollectionOutcome collect(bool compress, LogKind kind = LogKind::kTelephony,
                            bool isIndicated = true) {
    const CollectionRequest request{kind, compress, isIndicated, "test", "", ""};
    return Collector(paths, limits).collect(request, isCancelled);
  }

  /// A collection that is to work, with this to tell about it.
  Snapshot collected(bool compress, const std::string& told = "") {
    const CollectionOutcome outcome = collect(compress);
    calls.before = nullptr;
    EXPECT_EQ(outcome.result.status, 0);
    EXPECT_EQ(outcome.result.text, told);
    Snapshot snapshot = snapshotAt(outcome.path);
    EXPECT_EQ(snapshot.size(), outcome.files + 1);
    EXPECT_THAT(namesIn(paths.staging), IsEmpty());
    kst::support::removeTree(outcome.path);
    return snapshot;
  }

  void expectFailure(const CollectionOutcome& outcome, std::int32_t status,
                     const std::string& text) const {
    EXPECT_EQ(outcome.result.status, status) << outcome.result.text;
    EXPECT_THAT(outcome.result.text, HasSubstr(text));
    EXPECT_TRUE(outcome.timestamp.empty() && outcome.path.empty() && outcome.files == 0);
    EXPECT_THAT(namesIn(paths.snapshots), ElementsAre(kOld));
    EXPECT_THAT(namesIn(paths.staging), IsEmpty());
    EXPECT_FALSE(isThere(paths.dumpIndication));
  }

  const std::string kDiag = "DIAG.scratch/diag.log";
  const char* const kOld = "log-bb-2000-01-01-00-00-00-000-telephony.zip";
};

TEST_F(CollectorTest, HoldsTheLogsOfItsKindUnderTheNameOfItsKind) {
  const struct {
    LogKind kind;
    bool compress;
    const char* vendor;
    const char* suffix;
  } cases[] = {{LogKind::kTelephony, true, "1", "-telephony.zip"},
               {LogKind::kTelephony, false, "2", "-telephony"},
               {LogKind::kBaseband, true, "2", "-baseband.zip"},
               {LogKind::kBaseband, false, "1", "-bb-trace"},
               {LogKind::kBaseband, false, "2", "-diag"},
               {LogKind::kTelephonyWithCoredump, true, "1", "-coredump.zip"},
               {LogKind::kTelephonyWithCoredump, false, "2", "-coredump"}};
  limits.maxSource = kBuffer;  // which does not hold for the dump
  for (const auto& each : cases) {
    makeFile("device.conf", std::string("radio_vendor = ") + each.vendor);
    kst::support::removeTree(paths.coreDumps);
    runVexild();
    isCancelled = [&] {
      EXPECT_EQ(isThere(paths.dumpIndication), each.compress);
      if (!vexild->wait({}).empty()) {
        makeLog("CoreDump/core", std::string(kBuffer + 1, '\0'));
      }
      return false;
    };
    const CollectionOutcome outcome = collect(each.compress, each.kind, each.compress);
    EXPECT_EQ(outcome.result.text, "");
    EXPECT_EQ(outcome.path, paths.snapshots + "/log-bb-" + outcome.timestamp + each.suffix);
    const auto size = static_cast<std::uint64_t>(statusOf(outcome.path).st_blocks) * 512;
    EXPECT_TRUE(each.compress ? outcome.bytes == size : outcome.bytes >= 100'000);
    Snapshot content = snapshotAt(outcome.path);
    EXPECT_EQ(outcome.files + 1, content.size());
    EXPECT_THAT(content.extract("kst-info.txt").mapped().bytes,
                AllOf(StartsWith("Reason: test\n"), HasSubstr("diag.log (100000 bytes, 2")));
    std::map<std::string, std::string> expected{{kDiag, std::string(100'000, 'd')}};
    if (each.kind != LogKind::kBaseband) {
      expected["TelephonyLog/older/telephony.1"] = "older call\n";
      expected["TelephonyLog/telephony.log"] = "call\n";
    }
    if (each.kind == LogKind::kTelephonyWithCoredump) {
      expected["CoreDump/core"] = std::string(kBuffer + 1, '\0');
    }
    std::map<std::string, std::string> found;
    for (const auto& [name, file] : content) {
      found[name] = file.bytes;
    }
    EXPECT_TRUE(found == expected) << each.suffix;
    EXPECT_THAT(namesIn(paths.staging), IsEmpty());
    EXPECT_FALSE(isThere(paths.dumpIndication));
  }
  kst::support::removeTree(paths.scratch);
  isCancelled = [] { return false; };
  EXPECT_THAT(collected(true).at("kst-info.txt").bytes, HasSubstr("No log file was found.\n"));
  mkdir(paths.dumpIndication.c_str(), 0755);
  EXPECT_THAT(collect(true).result.text, StartsWith("no dump indication: open /"));
}

TEST_F(CollectorTest, IsPrivateAndKeepsTimesWhateverModesAndUmaskAre) {
  const struct {
    const char* name;
    mode_t mode;
    time_t modified;
    time_t inArchive;
  } logs[] = {{"TelephonyLog/setid", 06755, 1'000'000'001, 1'000'000'001},
              {"TelephonyLog/own", 0600, 1, 1},
              {"DIAG.scratch/a/b/all", 0666, 3'000'000'001, 3'000'000'000},
              {"DIAG.scratch/last", 0666, 5'000'000'000, 4'354'819'198}};  // the end of 2107
  for (const auto& log : logs) {
    const std::string path = makeLog(log.name);
    chmod(path.c_str(), log.mode);
    const timespec times[] = {{1, 0}, {log.modified, 500'000'000}};
    utimensat(AT_FDCWD, path.c_str(), times, 0);
  }
  for (const mode_t mask : {0U, 077U}) {
    for (const bool compress : {false, true}) {
      umask(mask);
      kst::support::removeTree(paths.snapshots);
      kst::support::removeTree(paths.staging);
      const CollectionOutcome outcome = collect(compress);
      umask(022);
      EXPECT_TRUE(modeOf(paths.snapshots) <= 0750 && modeOf(paths.staging) <= 0750);
      EXPECT_EQ(modeOf(outcome.path), compress ? 0640 : 0750);
      for (const char* folder : {"/DIAG.scratch", "/DIAG.scratch/a/b"}) {
        EXPECT_EQ(compress ? 0750 : modeOf(outcome.path + folder), 0750);
      }
      const Snapshot snapshot = snapshotAt(outcome.path);
      for (const auto& [name, file] : snapshot) {
        EXPECT_EQ(file.mode, S_IFREG | 0640) << name;
      }
      for (const auto& log : logs) {
        EXPECT_EQ(snapshot.at(log.name).modified, compress ? log.inArchive : log.modified);
      }
      EXPECT_LT(std::abs(snapshot.at("kst-info.txt").modified - time(nullptr)), 60);
    }
  }
}

TEST_F(CollectorTest, TakesNamesOfAnyBytesAndMarksThoseThatAreText) {
  const std::string text = "TelephonyLog/\u00e4\u202e\nb";
  const std::string odd = "TelephonyLog/" + oddName;
  makeLog(text, "text");
  makeLog(odd, "odd");
  for (const bool compress : {false, true}) {
    const Snapshot snapshot = collected(compress);
    ASSERT_THAT(snapshot, SizeIs(6));
    EXPECT_TRUE(snapshot.at(text).bytes == "text" && snapshot.at(odd).bytes == "odd");
    EXPECT_EQ(snapshot.at(text).isUtf8, compress);
    EXPECT_FALSE(snapshot.at(odd).isUtf8);
    EXPECT_THAT(
        snapshot.at("kst-info.txt").bytes,
        AllOf(HasSubstr("\u00e4??b (4 bytes"), HasSubstr("line?feed [a-z]*\\(?? (3 bytes")));
  }
}

TEST_F(CollectorTest, TakesWhatALogHeldWhenItWasOpened) {
  kst::support::removeTree(paths.telephonyLogs);
  const std::string bytes = noise(5 * kBuffer / 2) + std::string(3 * kBuffer / 2, '\0') + "end" +
                            std::string(kBuffer, '\0');
  const std::string log = makeLog(kDiag, bytes);
  const Descriptor lock = openLock("DIAG.scratch");
  for (const bool compress : {false, true}) {
    int reads = 0;
    calls.at("read", 0, [&] {  // the daemon goes on as fast as its log is copied
      ++reads;
      EXPECT_TRUE(setLock(lock, F_WRLCK));
      std::ofstream(log, std::ios::app) << std::string(kBuffer, 'x');
      EXPECT_TRUE(setLock(lock, F_UNLCK));
    });
    EXPECT_TRUE(collected(compress).at(kDiag).bytes == bytes);
    EXPECT_EQ(reads, 6);
    EXPECT_EQ(truncate(log.c_str(), static_cast<off_t>(bytes.size())), 0);
    calls.longestTransfer = 10'000;  // read and written bit by bit
    calls.fail("read", EINTR);
    limits.maxSource = bytes.size();
    EXPECT_TRUE(collected(compress).at(kDiag).bytes == bytes);
    calls.longestTransfer = SIZE_MAX;
  }
}

TEST_F(CollectorTest, TellsOfALogThatItHadToCut) {
  const std::string bytes = noise(3 * kBuffer);
  const std::string log = paths.scratch + "/" + kDiag;
  const struct {
    std::string why;
    std::size_t size;
    bool isLimit;  // of the whole collection
    std::function<void()> prepare;
  } cases[] = {
      {"max_source", kBuffer + 5, false, [&] { limits.maxSource = kBuffer + 5; }},
      {"it became shorter", kBuffer + 5, false,
       [&] { calls.at("read", 4, [&] { truncate(log.c_str(), kBuffer + 5); }); }},
      {"Input/output error", kBuffer, false, [&] { calls.fail("read", EIO, 4); }},
      {"no room within max_total", 2 * kBuffer, true, [&] { limits.maxTotal = 3 * kBuffer; }},
      {"the time was over", kBuffer, true, [&] {
         limits.collectionTime = std::chrono::seconds(1);
         makeLog("DIAG.scratch/larger.log", bytes + "x");
         calls.at("read", 3, [] { usleep(999'999); });  // the smaller logs are read before
       }}};
  for (const auto& each : cases) {
    makeLog(kDiag, bytes);
    const Limits before = limits;
    each.prepare();
    const CollectionOutcome outcome = collect((&each - cases) % 2 == 0);
    calls.before = nullptr;
    limits = before;
    const std::string told = each.isLimit ? "not all logs were collected: " + each.why + "; " : "";
    EXPECT_EQ(outcome.result.text, told + "1 log is cut (" + kDiag + ": " + each.why + ")");
    const Snapshot snapshot = snapshotAt(outcome.path);
    EXPECT_TRUE(snapshot.at(kDiag).bytes == bytes.substr(0, each.size)) << each.why;
    const std::string& info = snapshot.at("kst-info.txt").bytes;
    EXPECT_THAT(info, HasSubstr("cut at " + std::to_string(each.size) + " bytes: " + each.why));
    EXPECT_EQ(info.find("larger.log: left out: the time was over\n") != std::string::npos,
              each.why.starts_with("the time"));
    EXPECT_EQ(snapshot.at("TelephonyLog/telephony.log").bytes, "call\n");
  }
}

TEST_F(CollectorTest, LeavesOutWhatItHasNoRoomOrTimeFor) {
  for (int log = 0; log < 40; ++log) {
    makeLog("TelephonyLog/" + std::to_string(log));
  }
  limits.maxTotal = 200'000;  // what a file takes beside its content counts
  const CollectionOutcome outcome = collect(false);
  EXPECT_EQ(outcome.result.text, "not all logs were collected: no room within max_total");
  EXPECT_TRUE(outcome.files > 10 && outcome.files < 30) << outcome.files;
  EXPECT_LE(outcome.bytes, limits.maxTotal);
  EXPECT_THAT(contentOf(outcome.path + "/kst-info.txt"),
              HasSubstr("diag.log: left out: no room within max_total\n"));
  limits.maxTotal = UINT64_MAX;
  limits.collectionTime = std::chrono::seconds(1);
  kst::support::removeTree(outcome.path);
  kst::support::removeTree(paths.telephonyLogs);
  makeLog("DIAG.scratch/larger.log", std::string(100'001, 'x'));
  calls.before = [reads = 0](const std::string& function) mutable {
    usleep(function == "read" && ++reads == 1 ? 999'999 : (function == "readdir" ? 20'000 : 0));
    return 0;
  };
  EXPECT_EQ(collect(true).result.text, "not all logs were collected: the time was over");
}

TEST_F(CollectorTest, TellsOfANameThatIsTaken) {
  calls.at("futimens", 1, [&] {  // behind the first log
    makeIn(paths.staging, "snapshot/DIAG.scratch");
    makeIn(paths.staging, "snapshot/TelephonyLog/older/telephony.1/x");
  });
  const CollectionOutcome outcome = collect(false);
  EXPECT_TRUE(outcome.result.status == 0 && outcome.files == 1);
  EXPECT_EQ(outcome.result.text, "2 logs are unreadable (" + kDiag + ": its name is taken)");
}

TEST_F(CollectorTest, FailsWithoutRemains) {
  makeIn(paths.snapshots, kOld);
  limits.keepNewest = 1;
  const Limits before = limits;
  const auto setModes = [this](mode_t mode) {
    chmod(paths.telephonyLogs.c_str(), mode);
    chmod(paths.basebandLogs.c_str(), mode);
    overridePermissions(mode != 0);
  };
  const std::tuple<std::int32_t, const char*, std::function<void()>> cases[] = {
      {kst::kResultStopping, "broken off", [&] { isCancelled = [] { return true; }; }},
      {kst::kResultNoRoom, "no room within max_total in ", [&] { limits.maxTotal = 10; }},
      {kst::kResultNoRoom, "no room on the disk beside keep_free in ",
       [&] { calls.fileSystem.emplace(); }},
      {kst::kResultTimeOver, "took too long", [&] { limits.collectionTime = {}; }},
      {kst::kResultCollectionFailed, "nothing could be read: TelephonyLog/: Permission denied",
       [&] { setModes(0); }},
      {kst::kResultCollectionFailed, "flock", [&] { calls.fail("flock", ENOLCK); }}};
  for (const auto& [status, text, prepare] : cases) {
    for (const bool compress : {false, true}) {
      prepare();
      const CollectionOutcome outcome = collect(compress);
      calls.before = nullptr;
      calls.fileSystem.reset();
      isCancelled = [] { return false; };
      limits = before;
      setModes(0755);
      expectFailure(outcome, status, text);
    }
  }
}

TEST_F(CollectorTest, FailsWithoutRemainsWhenTheDiskIsFull) {
  makeIn(paths.snapshots, kOld);
  signal(SIGXFSZ, SIG_IGN);
  makeLog(kDiag, noise(3 * kBuffer));
  const std::string whole = collect(true).path;
  const auto size = std::filesystem::file_size(whole);
  kst::support::removeFile(whole);
  const std::pair<bool, rlim_t> cases[] = {
      {false, 50'000}, {true, 50'000}, {true, size - 16}};  // in the archive's last bytes
  for (const auto& [compress, most] : cases) {
    std::optional<ResourceLimit> limit(std::in_place, RLIMIT_FSIZE, most);
    calls.at("read", most == 50'000 ? 5 : -1, [&] { limit.reset(); });  // room that comes too late
    const CollectionOutcome outcome = collect(compress);
    calls.before = nullptr;
    limit.reset();
    expectFailure(outcome, kst::kResultNoRoom, "write ");
  }
  signal(SIGXFSZ, SIG_DFL);
}

// Whatever call fails, there is an honest snapshot or none.
TEST_F(CollectorTest, SurvivesTheFailureOfEveryCall) {
  makeIn(paths.snapshots, kOld);
  makeLog("TelephonyLog.lock");
  symlink("nowhere", (paths.telephonyLogs + "/link").c_str());
  for (const auto& [error, compress] : {std::pair(EIO, false),
                                        {EIO, true},
                                        {EMFILE, false},
                                        {EMFILE, true},
                                        {EINTR, false},
                                        {EINTR, true}}) {
    int number = 0;
    int called = 0;
    int succeeded = 0;
    do {
      std::string fault;
      ++number;
      called = 0;
      calls.before = [&, error = error](const std::string& function) {
        const bool fails = ++called == number;
        fault = fails ? function : fault;
        return fails ? error : 0;
      };
      const CollectionOutcome outcome = collect(compress);
      calls.before = nullptr;
      SCOPED_TRACE(fault + " " + std::to_string(number) + ": " + outcome.result.text);
      if (outcome.result.status != 0) {
        expectFailure(outcome, kst::kResultCollectionFailed, "");
        EXPECT_FALSE(outcome.result.text.empty());
        continue;
      }
      ++succeeded;
      const Snapshot snapshot = snapshotAt(outcome.path);
      EXPECT_TRUE(!outcome.result.text.empty() ||
                  (snapshot.size() == 4 && snapshot.at(kDiag).bytes.size() == 100'000));
      EXPECT_THAT(namesIn(paths.staging), IsEmpty());
      EXPECT_THAT(namesIn(paths.snapshots), SizeIs(2));
      kst::support::removeTree(outcome.path);
      kst::support::removeFile(paths.dumpIndication);
    } while (called >= number);
    EXPECT_GT(succeeded, 20);
    EXPECT_GT(number, 60);
  }
}

TEST_F(CollectorTest, EndsOnRequestAtAnyMoment) {
  makeIn(paths.snapshots, kOld);
  for (const bool compress : {false, true}) {
    int moment = 0;
    CollectionOutcome outcome;
    do {
      isCancelled = [&, asked = 0]() mutable { return asked++ == moment; };
      outcome = collect(compress);
      if (outcome.result.status != 0) {
        expectFailure(outcome, kst::kResultStopping, "broken off");
      }
      ++moment;
    } while (outcome.result.status != 0);
    EXPECT_GT(moment, 6);
    kst::support::removeTree(outcome.path);
  }
}

TEST_F(CollectorTest, MakesNothingOfHalfADump) {
  makeIn(paths.snapshots, kOld);
  const std::tuple<std::int32_t, const char*, std::function<void()>> cases[] = {
      {kst::kResultNoCoreDump, "CoreDump/core: Input/output error",
       [&] { calls.fail("read", EIO, 2); }},
      {kst::kResultNoRoom, "max_total", [&] { limits.maxTotal = kBuffer; }}};
  for (const auto& [status, text, prepare] : cases) {
    kst::support::removeTree(paths.coreDumps);
    runVexild();
    prepare();
    isCancelled = [&, prepare = prepare] {
      if (!vexild->wait({}).empty()) {
        makeLog("CoreDump/core", noise(2 * kBuffer));
        prepare();
      }
      return false;
    };
    expectFailure(collect(true, LogKind::kTelephonyWithCoredump), status, text);
  }
}

TEST_F(CollectorTest, NeedsFewDescriptors) {
  for (int log = 0; log < 200; ++log) {
    makeLog("TelephonyLog/" + std::to_string(log) + "/log");
  }
  for (const bool compress : {false, true}) {
    const ResourceLimit few(RLIMIT_NOFILE, 24);
    EXPECT_THAT(collected(compress), SizeIs(204));
  }
}

TEST_F(CollectorTest, TakesTreesOfAnyDepthButNoReportOfAnyLength) {
  Descriptor folder(kst::support::openPath(paths.telephonyLogs, O_RDONLY | O_DIRECTORY, 0));
  Descriptor deep;
  std::string name = "TelephonyLog";
  for (int level = 2; level <= 70; ++level) {
    const std::string below(250, 'f');
    ASSERT_EQ(mkdirat(folder.get(), below.c_str(), 0755), 0);
    folder = Descriptor(openat(folder.get(), below.c_str(), O_RDONLY | O_DIRECTORY));
    const Descriptor log(openat(folder.get(), "log", O_WRONLY | O_CREAT, 0644));
    name += level <= 64 ? "/" + below : "";
    if (level == 64) {
      deep = Descriptor(dup(folder.get()));
    }
  }
  folder.close();
  const Snapshot archive = collected(true);
  EXPECT_TRUE(archive.contains(name + "/log"));
  EXPECT_THAT(archive, SizeIs(4 + 63));
  EXPECT_THAT(archive.at("kst-info.txt").bytes, HasSubstr("deeper than 64 folders"));
  const CollectionOutcome outcome = collect(false);
  EXPECT_TRUE(outcome.result.text.empty() && outcome.files == 3 + 63) << outcome.result.text;
  limits.maxSnapshots = 1;
  limits.keepNewest = 1;
  for (int link = 0; link < 900; ++link) {
    EXPECT_EQ(symlinkat("nowhere", deep.get(), std::to_string(link).c_str()), 0);
  }
  deep.close();
  const CollectionOutcome limited = collect(true);
  EXPECT_EQ(limited.result.text, "TelephonyLog holds too much: not all of it was looked at");
  EXPECT_THAT(namesIn(paths.snapshots), SizeIs(1));  // the deep one is gone
  const Snapshot snapshot = snapshotAt(limited.path);
  EXPECT_TRUE(snapshot.contains(kDiag));
  EXPECT_GT(snapshot.at("kst-info.txt").bytes.size(), 11U << 20);
  EXPECT_LT(snapshot.at("kst-info.txt").bytes.size(), 13U << 20);
}

TEST_F(CollectorTest, RemovesOldSnapshotsOnceTheNewOneStands) {
  limits.maxSnapshots = 2;
  limits.keepNewest = 0;
  for (int day = 1; day <= 3; ++day) {
    makeIn(paths.snapshots, "log-bb-2000-01-0" + std::to_string(day) + "-00-00-00-000-diag/log");
  }
  calls.fail("renameat2", EIO);
  EXPECT_EQ(collect(true).result.status, kst::kResultCollectionFailed);
  EXPECT_THAT(namesIn(paths.snapshots), SizeIs(3));
  calls.fail("renameat", EACCES);
  EXPECT_THAT(collect(true).result.text, AllOf(StartsWith("remove "), HasSubstr("-01-01-")));
  EXPECT_THAT(namesIn(paths.snapshots), SizeIs(4));
  const CollectionOutcome outcome = collect(true);
  EXPECT_EQ(outcome.result.text, "");
  EXPECT_THAT(namesIn(paths.snapshots),
              AllOf(SizeIs(2), testing::Contains(kst::support::lastPathComponent(outcome.path))));
}

TEST_F(CollectorTest, ClearsWhatAKilledCollectionHasLeft) {
  makeIn(paths.staging, "snapshot/stale.log", "stale");
  makeIn(paths.staging, "other", "somebody else's");
  makeFile("tmp/Kestrane.dumping");
  const Collector collector(paths, limits);
  {
    const Descriptor another(kst::support::openPath(paths.staging, O_RDONLY | O_CLOEXEC, 0));
    ASSERT_EQ(flock(another.get(), LOCK_EX), 0);
    EXPECT_FALSE(collector.clearRemains());
    EXPECT_TRUE(namesIn(paths.staging).size() == 2 && isThere(paths.dumpIndication));
    // Nor does a collection touch it: it waits as long as it may.
    int asked = 0;
    isCancelled = [&] { return ++asked > 5; };
    EXPECT_EQ(collect(true).result.status, kst::kResultStopping);
    isCancelled = [] { return false; };
    limits.collectionTime = std::chrono::seconds(1);
    EXPECT_EQ(collect(true).result.status, kst::kResultTimeOver);
    EXPECT_THAT(namesIn(paths.staging), SizeIs(2));
  }
  // What cannot be removed is told where it is in the way, and never mixed with what is new.
  calls.fail("unlinkat", EBUSY, 0);
  EXPECT_EQ(collect(true, LogKind::kBaseband, false).result.text, "");
  EXPECT_EQ(collect(false, LogKind::kBaseband, false).result.text, "mkdir snapshot: File exists");
  calls.before = nullptr;
  EXPECT_THAT(snapshotAt(collect(false).path), SizeIs(4));
  makeIn(paths.staging, "snapshot/stale.log", "stale");
  makeFile("tmp/Kestrane.dumping");
  EXPECT_FALSE(collector.clearRemains());
  EXPECT_THAT(namesIn(paths.staging), ElementsAre("other"));
  EXPECT_FALSE(isThere(paths.dumpIndication));
  kst::support::removeTree(paths.staging);
  makeFile("var/wireless/Library/Logs/kst.workspace/uncompressed");
  EXPECT_THAT(collector.clearRemains().value_or(""), HasSubstr(paths.staging));
}

TEST_F(CollectorTest, TakesTurnsWithCollectorsOfOtherProcesses) {
  makeLog(kDiag, noise(3 * kBuffer));
  const Snapshot expected = collected(true);
  constexpr int kRounds = 8;
  const auto run = [&] {
    int succeeded = 0;
    for (int round = 0; round < kRounds; ++round) {
      const CollectionOutcome outcome = collect(round % 2 == 0);
      succeeded += outcome.result.status == 0 && outcome.result.text.empty() ? 1 : 0;
    }
    return succeeded;
  };
  const pid_t other = fork();
  if (other == 0) {
    _exit(run());
  }
  EXPECT_EQ(run(), kRounds);
  int status = 0;
  EXPECT_EQ(waitpid(other, &status, 0), other);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == kRounds);
  std::set<std::string> timestamps;
  for (const std::string& name : namesIn(paths.snapshots)) {
    timestamps.insert(name.substr(0, 30));
    const Snapshot snapshot = snapshotAt(paths.snapshots + "/" + name);
    EXPECT_THAT(snapshot, SizeIs(4));
    EXPECT_TRUE(snapshot.at(kDiag).bytes == expected.at(kDiag).bytes);
  }
  EXPECT_THAT(timestamps, SizeIs(2 * kRounds));
}

}  // namespace
}  // namespace collection
