#include "collection/Collector.h"

#include <sys/file.h>

#include <csignal>
#include <random>
#include <stdexcept>
#include <tuple>

#include "collection/SnapshotWriter.h"
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
    setenv("TZ", "UTC-1", 1);  // NOLINT(concurrency-mt-unsafe): the test has one thread here
    tzset();
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

  /// Runs vexild, which does this deed when a core dump is asked for.
  void runVexildThen(const std::function<void()>& deed) {
    runVexild();
    isCancelled = [this, deed] {
      if (!vexild->wait({}).empty()) {
        deed();
      }
      return false;
    };
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

TEST_F(CollectorTest, HoldsTheLogsOfItsKindPrivatelyUnderTheNameOfItsKind) {
  const struct {
    LogKind kind;
    bool compress;
    mode_t mask;
    const char* suffix;
    const char* vendor = "1";
  } cases[] = {{LogKind::kTelephony, true, 0, "-telephony.zip"},
               {LogKind::kTelephony, false, 077, "-telephony"},
               {LogKind::kBaseband, true, 077, "-baseband.zip", "2"},
               {LogKind::kBaseband, false, 0, "-bb-trace"},
               {LogKind::kBaseband, false, 077, "-diag", "2"},
               {LogKind::kTelephonyWithCoreDump, true, 077, "-coredump.zip"},
               {LogKind::kTelephonyWithCoreDump, false, 0, "-coredump", "2"}};
  const std::string dump(kBuffer + 1, '\0');
  const struct {
    std::string name;
    std::string bytes;
    mode_t mode;
    time_t modified;
    unsigned long dosDate;
    bool isText = true;
  } logs[] = {{"TelephonyLog/\u00e4\u202e\nb", "call", 06755, 1'000'000'001, 0x2B2915D4},
              {"TelephonyLog/" + oddName, "odd", 0600, 1, 0x210000, false},  // in 1980
              {"DIAG.scratch/a/b/all", "", 0666, 3'000'000'001, 0xAA383280},
              {kDiag, std::string(100'000, 'd'), 0, 5'000'000'000, 0xFF9FBF7D},  // in 2107
              {"CoreDump/core", dump, 0640, 1'000'000'001, 0x2B2915D4}};
  limits.maxSource = kBuffer;  // which does not hold for the dump
  for (const auto& each : cases) {
    makeFile("device.conf", std::string("radio_vendor = ") + each.vendor);
    kst::support::removeTree(directory / "var");
    const auto makeOne = [&](const auto& log) {
      const std::string path = makeLog(log.name, log.bytes);
      const timespec times[] = {{1, 0}, {log.modified, 500'000'000}};
      utimensat(AT_FDCWD, path.c_str(), times, 0);
      chmod(path.c_str(), log.mode);
    };
    std::for_each(logs, logs + 4, makeOne);
    runVexildThen([&] { makeOne(logs[4]); });
    calls.at("read", 1, [&] { EXPECT_EQ(isThere(paths.dumpIndication), each.compress); });
    umask(each.mask);
    const CollectionOutcome outcome = collect(each.compress, each.kind, each.compress);
    umask(022);
    EXPECT_EQ(outcome.result.text, "");
    EXPECT_EQ(outcome.path, paths.snapshots + "/log-bb-" + outcome.timestamp + each.suffix);
    const auto size = static_cast<std::uint64_t>(statusOf(outcome.path).st_blocks) * 512;
    EXPECT_TRUE(each.compress ? outcome.bytes == size : outcome.bytes >= 100'000);
    EXPECT_EQ(modeOf(outcome.path), each.compress ? 0640 : 0750);
    EXPECT_EQ(each.compress ? 0750 : modeOf(outcome.path + "/DIAG.scratch/a/b"), 0750);
    Snapshot content = snapshotAt(outcome.path);
    EXPECT_EQ(outcome.files + 1, content.size());
    const SnapshotFile info = content.extract("kst-info.txt").mapped();
    EXPECT_THAT(info.bytes,
                AllOf(StartsWith("Reason: test\n"), HasSubstr("diag.log (100000 bytes, 2")));
    EXPECT_TRUE(std::abs(info.modified - time(nullptr)) < 60 && info.mode == (S_IFREG | 0640));
    Snapshot expected;
    for (const auto& log : logs) {
      if (log.name.starts_with("DIAG") ||
          (each.kind != LogKind::kBaseband && log.name.starts_with("Tel")) ||
          (each.kind == LogKind::kTelephonyWithCoreDump && log.name.starts_with("Core"))) {
        const bool isTold = !each.compress || std::in_range<std::int32_t>(log.modified);
        expected[log.name] = {log.bytes, isTold ? log.modified : 0, S_IFREG | 0640,
                              each.compress && log.isText, each.compress ? log.dosDate : 0};
      }
    }
    EXPECT_TRUE(content == expected) << each.suffix;
    EXPECT_TRUE(modeOf(paths.snapshots) <= 0750 && modeOf(paths.staging) <= 0750);
    EXPECT_FALSE(isThere(paths.dumpIndication));
  }
  kst::support::removeTree(paths.scratch);
  isCancelled = [] { return false; };
  EXPECT_THAT(collected(true).at("kst-info.txt").bytes, HasSubstr("No log file was found.\n"));
  mkdir(paths.dumpIndication.c_str(), 0755);
  EXPECT_THAT(collect(true).result.text, StartsWith("no dump indication: open /"));
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
    limits.maxSource = bytes.size();
    for (const std::string interrupted : {"read", "write"}) {
      calls.fail(interrupted, EINTR);
      EXPECT_TRUE(collected(compress).at(kDiag).bytes == bytes);
    }
    calls.longestTransfer = SIZE_MAX;
  }
  makeLog("DIAG.scratch/other", "copied first");
  EXPECT_EQ(truncate(log.c_str(), static_cast<off_t>(bytes.size())), 0);
  EXPECT_TRUE(collected(false).at(kDiag).bytes == bytes) << "holes are where they were";
}

TEST_F(CollectorTest, TellsOfALogThatItHadToCut) {
  const std::string bytes = noise(3 * kBuffer);
  kst::support::removeTree(paths.telephonyLogs);  // whose logs may come before or after
  const std::string log = paths.scratch + "/" + kDiag;
  const std::tuple<std::string, std::size_t, std::function<void()>> cases[] = {
      {"max_source", kBuffer + 5, [&] { limits.maxSource = kBuffer + 5; }},
      {"it became shorter", kBuffer + 5,
       [&] { calls.at("read", 2, [&] { truncate(log.c_str(), kBuffer + 5); }); }},
      {"Input/output error", kBuffer, [&] { calls.fail("read", EIO, 2); }},
      {"no room within max_total", 2 * kBuffer, [&] { limits.maxTotal = 3 * kBuffer; }},
      {"the time was over", kBuffer, [&] {
         makeLog("DIAG.scratch/larger.log", bytes + "x");
         calls.at("read", 1, [&] { calls.passed += limits.collectionTime; });
       }}};
  bool compress = false;
  for (const auto& [why, size, prepare] : cases) {
    makeLog(kDiag, bytes);
    const Limits before = limits;
    prepare();
    const bool isLimit = why.starts_with("no ") || why.starts_with("the ");
    const std::string told = isLimit ? "not all logs were collected: " + why + "; " : "";
    compress = !compress;
    const Snapshot snapshot =
        collected(compress, told + "1 log is cut (" + kDiag + ": " + why + ")");
    limits = before;
    EXPECT_TRUE(snapshot.at(kDiag).bytes == bytes.substr(0, size)) << why;
    EXPECT_THAT(
        snapshot.at("kst-info.txt").bytes,
        AllOf(HasSubstr("cut at " + std::to_string(size) + " bytes: " + why),
              HasSubstr(why == "the time was over" ? "larger.log: left out: the time was over\n"
                                                   : "")));
  }
  kst::support::removeTree(paths.basebandLogs);
  makeLog(kDiag, "read at once");
  calls.before = [&](const std::string& function) {
    calls.passed += std::chrono::milliseconds(function == "readdir" ? 20 : 0);  // a log at a time
    calls.passed += function == "read" ? limits.collectionTime : std::chrono::seconds(0);
    return 0;
  };
  EXPECT_EQ(collect(true).result.text, "not all logs were collected: the time was over");
}

TEST_F(CollectorTest, NeedsFewDescriptorsAndLeavesOutWhatItHasNoRoomFor) {
  for (int log = 0; log < 40; ++log) {
    makeLog("TelephonyLog/" + std::to_string(log) + "/log");
  }
  const ResourceLimit few(RLIMIT_NOFILE, 24);
  const std::string lacks = "not all logs were collected: no room within max_total";
  const Limits ample = limits;
  // A log that is too much for the room leaves what there is to smaller ones that are met later.
  makeLog(kDiag, noise(3 * kBuffer));
  for (const bool compress : {false, true}) {
    limits = ample;
    EXPECT_THAT(collected(compress), SizeIs(44));
    limits.maxTotal = 835'000;
    EXPECT_THAT(
        collected(compress, lacks + "; 1 log is cut (" + kDiag + ": no room within max_total)"),
        SizeIs(44));
  }
  makeLog(kDiag, "diag");
  // What a file takes beside its content counts, and what is told.
  for (int link = 0; link < 320; ++link) {
    makeLogs("TelephonyLog/" + std::string(230, 'l') + std::to_string(link) + ">none");
  }
  limits.maxTotal = 320'000;
  const CollectionOutcome outcome = collect(false);
  EXPECT_EQ(outcome.result.text, lacks);
  EXPECT_TRUE(outcome.files > 10 && outcome.files < 30) << outcome.files;
  EXPECT_LE(outcome.bytes, limits.maxTotal);
  EXPECT_THAT(readFile(outcome.path + "/kst-info.txt"),
              HasSubstr("log: left out: no room within max_total\n"));
}

TEST_F(CollectorTest, FailsWithoutRemains) {
  makeFile(paths.snapshots + "/" + kOld);
  makeLog(kDiag, noise(3 * kBuffer));
  signal(SIGXFSZ, SIG_IGN);
  const std::string archive = collect(true).path;
  const auto archiveSize = std::filesystem::file_size(archive);
  kst::support::removeFile(archive);
  limits.keepNewest = 1;
  const Limits before = limits;
  std::optional<ResourceLimit> largest;
  bool compress = false;
  const std::tuple<std::int32_t, const char*, std::function<void()>> cases[] = {
      {kst::kResultNoRoom, "no room within max_total in ", [&] { limits.maxTotal = 10; }},
      {kst::kResultNoRoom, "no room on the disk beside keep_free in ",
       [&] { calls.fileSystem.emplace(); }},
      {kst::kResultNoRoom, "No space left",
       [&] { calls.fail(compress ? "fsync" : "syncfs", ENOSPC); }},
      {kst::kResultNoRoom, "quota", [&] { calls.fail("fsync", EDQUOT); }},
      {kst::kResultNoRoom, "write ",
       [&] {
         largest.emplace(RLIMIT_FSIZE, 50'000);
         calls.at("read", 5, [&] { largest.reset(); });  // room that comes too late
       }},
      {kst::kResultNoRoom, "write ",
       [&] { largest.emplace(RLIMIT_FSIZE, compress ? archiveSize - 16 : kBuffer); }},
      {kst::kResultTimeOver, "took too long", [&] { limits.collectionTime = {}; }},
      {kst::kResultCollectionFailed, "nothing could be read: TelephonyLog/: Permission denied",
       [&] { calls.fail("readdir", EACCES, 0); }},
      {kst::kResultCollectionFailed, "odd?",
       [&] { isCancelled = []() -> bool { throw std::runtime_error("odd\n"); }; }},
      // Half a dump is none.
      {kst::kResultNoCoreDump, "CoreDump/core?: Input/output error",
       [&] {
         runVexildThen([&] {
           makeLog("CoreDump/core\n", noise(2 * kBuffer));
           calls.fail("read", EIO, 2);
         });
       }},
      {kst::kResultNoRoom, "max_total", [&] {
         limits.maxTotal = kBuffer;
         runVexildThen([&] { makeLog("CoreDump/core", noise(2 * kBuffer)); });
       }}};
  for (const auto& [status, text, prepare] : cases) {
    for (const bool compressing : {false, true}) {
      compress = compressing;
      prepare();
      const CollectionOutcome outcome =
          collect(compress, vexild ? LogKind::kTelephonyWithCoreDump : LogKind::kTelephony);
      calls.before = nullptr;
      calls.fileSystem.reset();
      isCancelled = [] { return false; };
      limits = before;
      largest.reset();
      vexild.reset();
      kst::support::removeTree(paths.coreDumps);
      expectFailure(outcome, status, text);
    }
  }
  signal(SIGXFSZ, SIG_DFL);
}

// Whatever call fails, and whenever it is to end, there is an honest snapshot or none.
TEST_F(CollectorTest, SurvivesTheFailureOfEveryCallAndEndsAtAnyMoment) {
  makeFile(paths.snapshots + "/" + kOld);
  makeLog("TelephonyLog.lock");
  symlink("nowhere", (paths.telephonyLogs + "/link").c_str());
  for (std::size_t round = 0; round < 8; ++round) {
    const int error = std::array{EIO, EMFILE, EINTR, ECANCELED}.at(round / 2);
    const bool isCancellation = error == ECANCELED;  // of the collection
    int number = 0;
    int called = 0;
    int succeeded = 0;
    do {
      std::string fault;
      ++number;
      called = 0;
      calls.before = [&](const std::string& function) {
        const bool fails = !isCancellation && ++called == number;
        fault = fails ? function : fault;
        return fails ? error : 0;
      };
      isCancelled = [&] { return isCancellation && ++called == number; };
      const CollectionOutcome outcome = collect(round % 2 == 0);
      calls.before = nullptr;
      SCOPED_TRACE(fault + " " + std::to_string(number) + ": " + outcome.result.text);
      if (outcome.result.status != 0) {
        expectFailure(outcome, isCancellation ? kst::kResultStopping : kst::kResultCollectionFailed,
                      "");
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
    EXPECT_TRUE(isCancellation ? number > 6 && succeeded == 1 : number > 60 && succeeded > 20);
  }
}

TEST_F(CollectorTest, TakesTreesOfAnyDepth) {
  Descriptor folder(kst::support::openPath(paths.telephonyLogs, O_RDONLY | O_DIRECTORY, 0));
  std::string name = "TelephonyLog";
  const std::string below(250, 'f');
  Descriptor deep;
  for (int level = 2; level <= 70; ++level) {
    ASSERT_EQ(mkdirat(folder.get(), below.c_str(), 0755), 0);
    folder = Descriptor(openat(folder.get(), below.c_str(), O_RDONLY | O_DIRECTORY));
    const Descriptor log(openat(folder.get(), "log", O_WRONLY | O_CREAT, 0644));
    name += level <= 64 ? "/" + below : "";
    deep = level == 63 ? Descriptor(dup(folder.get())) : std::move(deep);
  }
  folder.close();
  const Snapshot archive = collected(true);
  EXPECT_TRUE(archive.contains(name + "/log"));
  EXPECT_THAT(archive, SizeIs(4 + 63));
  EXPECT_THAT(archive.at("kst-info.txt").bytes, HasSubstr("deeper than 64 folders"));
  EXPECT_EQ(collect(false).files, 3 + 63);
  limits.maxSnapshots = 1;
  limits.keepNewest = 1;
  EXPECT_EQ(collect(true).result.text, "");
  EXPECT_THAT(namesIn(paths.snapshots), SizeIs(1));  // the deep one is gone

  // Folders count too, empty as they are.
  for (int empty = 0; empty < 900; ++empty) {
    EXPECT_EQ(mkdirat(deep.get(), std::to_string(empty).c_str(), 0755), 0);
  }
  EXPECT_EQ(collect(true).result.text, "TelephonyLog holds too much: not all of it was looked at");
}

TEST_F(CollectorTest, AFolderTakesNoNameThatIsTooLong) {
  const Descriptor here = kst::support::openFolder(AT_FDCWD, paths.scratch);
  const auto writer = makeFolderWriter(here.get(), "snapshot");
  const std::string tooLong(NAME_MAX + 1, 'n');
  EXPECT_FALSE(writer->begin({.name = tooLong}));
  EXPECT_FALSE(writer->begin({.name = tooLong + "/log"}));
  EXPECT_TRUE(writer->begin({.name = "folder/log"}));
}

TEST_F(CollectorTest, RemovesOldSnapshotsOnceTheNewOneStands) {
  limits.maxSnapshots = 1;
  limits.keepNewest = 0;
  makeFile(paths.snapshots + "/" + kOld);
  calls.fail("renameat2", EIO);
  expectFailure(collect(true), kst::kResultCollectionFailed, "");
  calls.fail("renameat", EACCES);
  EXPECT_THAT(collect(true).result.text, AllOf(StartsWith("remove "), HasSubstr(kOld)));
  EXPECT_THAT(namesIn(paths.snapshots), SizeIs(2));
  const CollectionOutcome outcome = collect(true);
  EXPECT_EQ(outcome.result.text, "");
  EXPECT_THAT(namesIn(paths.snapshots), ElementsAre(kst::support::lastPathComponent(outcome.path)));
}

TEST_F(CollectorTest, ClearsWhatAKilledCollectionHasLeft) {
  make(paths.staging + "/snapshot/stale.log " + paths.staging + "/other tmp/Kestrane.dumping");
  const Collector collector(paths, limits);
  Descriptor another(kst::support::openPath(paths.staging, O_RDONLY | O_CLOEXEC, 0));
  ASSERT_EQ(flock(another.get(), LOCK_SH), 0);  // which keeps out whoever wants it for himself
  EXPECT_FALSE(collector.clearRemains());
  EXPECT_TRUE(isThere(paths.dumpIndication));
  // Nor does a collection touch it: it waits as long as it may.
  for (const auto status : {kst::kResultStopping, kst::kResultTimeOver}) {
    isCancelled = [&, asked = 0]() mutable {
      calls.passed += limits.collectionTime / 8;
      return status == kst::kResultStopping && ++asked > 5;
    };
    EXPECT_EQ(collect(true).result.status, status);
  }
  EXPECT_THAT(namesIn(paths.staging), SizeIs(2));
  another.close();
  isCancelled = [] { return false; };
  // What cannot be removed is told where it is in the way, and never mixed with what is new.
  calls.fail("unlinkat", EBUSY, 0);
  EXPECT_EQ(collect(true, LogKind::kBaseband, false).result.text, "");
  EXPECT_EQ(collect(false, LogKind::kBaseband, false).result.text, "mkdir snapshot: File exists");
  calls.before = nullptr;
  EXPECT_FALSE(collector.clearRemains());
  EXPECT_THAT(namesIn(paths.staging), ElementsAre("other"));
  EXPECT_FALSE(isThere(paths.dumpIndication));
}

}  // namespace
}  // namespace collection
