#include "collection/Collector.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zip.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/collection/TemporaryDevice.h"

namespace collection {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

/// The files of a snapshot, a folder or a zip archive, by their names in it.
std::map<std::string, std::string> contentOf(const std::string& snapshot) {
  std::map<std::string, std::string> content;
  if (fs::is_directory(snapshot)) {
    for (const auto& entry : fs::recursive_directory_iterator(snapshot)) {
      if (!entry.is_directory()) {
        content[fs::relative(entry.path(), snapshot)] = readFile(entry.path());
      }
    }
    return content;
  }
  const std::unique_ptr<zip_t, decltype(&zip_discard)> archive(
      zip_open(snapshot.c_str(), ZIP_RDONLY, nullptr), zip_discard);
  if (!archive) {
    return content;
  }
  for (zip_int64_t index = 0; index < zip_get_num_entries(archive.get(), 0); ++index) {
    zip_stat_t entry;
    zip_stat_index(archive.get(), static_cast<zip_uint64_t>(index), 0, &entry);
    std::string& bytes = content[entry.name];
    bytes.resize(entry.size);
    zip_file_t* file = zip_fopen_index(archive.get(), static_cast<zip_uint64_t>(index), 0);
    zip_fread(file, bytes.data(), bytes.size());
    zip_fclose(file);
  }
  return content;
}

std::vector<std::string> namesOf(const std::map<std::string, std::string>& content) {
  std::vector<std::string> names;
  names.reserve(content.size());
  for (const auto& [name, bytes] : content) {
    names.push_back(name);
  }
  return names;
}

class CollectorTest : public testing::Test {
 protected:
  CollectorTest() {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the test has one thread here
    setenv("KESTRANE_DEVICE_CONF", (device.root() + "/device.conf").c_str(), 1);
    writeFile(paths.telephonyLogs + "/telephony.log", "call\n");
    writeFile(paths.telephonyLogs + "/older/telephony.1", "older call\n");
    writeFile(paths.basebandLogs + "/diag.log", std::string(100'000, 'd'));
  }

  [[nodiscard]] CollectionOutcome collect(const CollectionRequest& request,
                                          SnapshotLimits limits = {}) const {
    return Collector(paths, paths.managerStaging, limits).collect(request);
  }

  /// Makes an uncompressed telephony collection, which is to work, and gives its path.
  [[nodiscard]] std::string collectFolder() const {
    const CollectionOutcome outcome = collect(folderRequest());
    EXPECT_EQ(outcome.result.status, 0) << outcome.result.text;
    return paths.snapshots + "/log-bb-" + outcome.timestamp + "-telephony";
  }

  static CollectionRequest folderRequest() {
    CollectionRequest request;
    request.compress = false;
    request.reason = "test";
    return request;
  }

  void expectFailure(const CollectionOutcome& outcome, const std::string& call,
                     const std::string& path) const {
    EXPECT_EQ(outcome.result.status, kst::kResultCollectionFailed);
    EXPECT_THAT(outcome.result.text, HasSubstr(call));
    EXPECT_THAT(outcome.result.text, HasSubstr(path));
    EXPECT_EQ(outcome.timestamp, "");
    EXPECT_THAT(namesIn(paths.snapshots), IsEmpty());
    EXPECT_THAT(namesIn(paths.managerStaging), IsEmpty());
  }

  const TemporaryDevice device;
  const DevicePaths& paths = device.paths();
};

TEST_F(CollectorTest, HoldsTheLogsOfItsKindUnderTheNameOfItsKind) {
  const struct {
    LogKind kind;
    bool compress;
    bool telephony;
    const char* vendor;
    const char* suffix;
  } cases[] = {
      {LogKind::kTelephony, true, true, "1", "-telephony.zip"},
      {LogKind::kTelephony, false, true, "1", "-telephony"},
      {LogKind::kBaseband, true, false, "1", "-baseband.zip"},
      {LogKind::kBaseband, true, false, "2", "-baseband.zip"},
      {LogKind::kBaseband, false, false, "1", "-bb-trace"},
      {LogKind::kBaseband, false, false, "2", "-diag"},
      {LogKind::kBaseband, false, false, "3", "-bb-trace"},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(std::string(each.suffix) + " of vendor " + each.vendor);
    writeFile(device.root() + "/device.conf", std::string("radio_vendor = ") + each.vendor);
    CollectionRequest request;
    request.kind = each.kind;
    request.compress = each.compress;
    const CollectionOutcome outcome = collect(request);
    ASSERT_EQ(outcome.result.status, 0) << outcome.result.text;
    EXPECT_EQ(outcome.result.text, "");

    const std::string snapshot = paths.snapshots + "/log-bb-" + outcome.timestamp + each.suffix;
    const auto content = contentOf(snapshot);
    std::vector<std::string> expected{"DIAG.scratch/diag.log"};
    if (each.telephony) {
      expected.insert(expected.end(),
                      {"TelephonyLog/older/telephony.1", "TelephonyLog/telephony.log"});
    }
    expected.emplace_back("kst-info.txt");
    EXPECT_EQ(namesOf(content), expected);
    EXPECT_EQ(content.at("DIAG.scratch/diag.log"), std::string(100'000, 'd'));
    EXPECT_THAT(namesIn(paths.managerStaging), IsEmpty());
  }
}

TEST_F(CollectorTest, TellsWhatItHoldsAndWhy) {
  CollectionRequest request = folderRequest();
  request.reason = "[ksttool] crash";
  const CollectionOutcome outcome = collect(request);
  const std::string info =
      readFile(paths.snapshots + "/log-bb-" + outcome.timestamp + "-telephony/kst-info.txt");
  EXPECT_THAT(info,
              testing::MatchesRegex(
                  "Reason: \\[ksttool\\] crash\n"
                  "Time: [0-9]{4}\\.[0-9]{2}\\.[0-9]{2}_[0-9]{2}-[0-9]{2}-[0-9]{2}[+-][0-9]{4}\n"
                  "Action: CollectTelephonyLogs\n"
                  "Compress: false\n"
                  "Files: 3\n"
                  "  TelephonyLog/older/telephony\\.1 \\(11 bytes\\)\n"
                  "  TelephonyLog/telephony\\.log \\(5 bytes\\)\n"
                  "  DIAG\\.scratch/diag\\.log \\(100000 bytes\\)\n"));
}

TEST_F(CollectorTest, WorksWithoutAnyLog) {
  fs::remove_all(paths.telephonyLogs);
  fs::remove(paths.basebandLogs + "/diag.log");
  EXPECT_THAT(readFile(collectFolder() + "/kst-info.txt"), HasSubstr("No log file was found"));
}

TEST_F(CollectorTest, CopiesRegularFilesOnly) {
  writeFile(device.root() + "/outside/secret", "secret");
  ASSERT_EQ(mkfifo((paths.telephonyLogs + "/fifo").c_str(), 0600), 0);
  fs::create_symlink(device.root() + "/outside/secret", paths.telephonyLogs + "/link");
  fs::create_symlink("nowhere", paths.telephonyLogs + "/dangling");
  fs::create_directory_symlink(device.root() + "/outside", paths.telephonyLogs + "/linked");
  fs::create_directory_symlink(".", paths.telephonyLogs + "/loop");
  EXPECT_THAT(namesOf(contentOf(collectFolder())),
              ElementsAre("DIAG.scratch/diag.log", "TelephonyLog/older/telephony.1",
                          "TelephonyLog/telephony.log", "kst-info.txt"));
}

TEST_F(CollectorTest, CopiesNamesOfAnyBytes) {
  writeFile(paths.telephonyLogs + "/line\nfeed \xff*", "odd");
  for (const bool compress : {false, true}) {
    SCOPED_TRACE(compress);
    CollectionRequest request = folderRequest();
    request.compress = compress;
    const CollectionOutcome outcome = collect(request);
    ASSERT_EQ(outcome.result.status, 0) << outcome.result.text;
    const auto content = contentOf(paths.snapshots + "/log-bb-" + outcome.timestamp +
                                   (compress ? "-telephony.zip" : "-telephony"));
    EXPECT_THAT(content, SizeIs(5));
    EXPECT_THAT(content.at("kst-info.txt"), HasSubstr("TelephonyLog/line?feed ?* (3 bytes)\n"));
  }
}

TEST_F(CollectorTest, CopesWithLogsThatVanish) {
  std::atomic<bool> done = false;
  std::thread daemon([&] {
    for (int round = 0; !done; ++round) {
      const std::string log = paths.telephonyLogs + "/rotated." + std::to_string(round % 50);
      if (!fs::remove(log)) {
        writeFile(log, "soon gone");
      }
    }
  });
  for (int round = 0; round < 20; ++round) {
    const CollectionOutcome outcome = collect(folderRequest());
    EXPECT_EQ(outcome.result.status, 0) << outcome.result.text;
  }
  done = true;
  daemon.join();
}

TEST_F(CollectorTest, FailsWithoutRemains) {
  const struct {
    const char* call;
    std::string path;
    std::function<void()> prepare;
  } cases[] = {
      {"not enough room", paths.managerStaging,
       [this] {
         // A sparse file: its size counts, whatever it takes on the disk.
         writeFile(paths.basebandLogs + "/huge", "");
         fs::resize_file(paths.basebandLogs + "/huge",
                         fs::space(device.root()).free / 2 + (std::uintmax_t{1} << 30));
       }},
      {"is a link", paths.basebandLogs,
       [this] { fs::create_directory_symlink(device.root(), paths.basebandLogs); }},
      {"opendir", paths.basebandLogs, [this] { writeFile(paths.basebandLogs, "no folder"); }},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.call);
    fs::remove_all(paths.basebandLogs);
    each.prepare();
    expectFailure(collect({}), each.call, each.path);
  }
}

TEST_F(CollectorTest, FailsOnWhatItMayNotRead) {
  if (geteuid() == 0) {
    GTEST_SKIP() << "the superuser may read everything";
  }
  const std::string closed = paths.telephonyLogs + "/closed";
  writeFile(closed, "closed");
  fs::permissions(closed, fs::perms::none);
  expectFailure(collect({}), "copy", closed);

  fs::remove(closed);
  fs::create_directory(closed);
  fs::permissions(closed, fs::perms::none);
  expectFailure(collect({}), "opendir", closed);
  fs::permissions(closed, fs::perms::owner_all);
}

/// As on a full disk, writing fails from a certain amount on.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : oldHandler(std::signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &old);
    const rlimit limit{bytes, old.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &old);
    std::signal(SIGXFSZ, oldHandler);
  }

 private:
  rlimit old{};
  void (*oldHandler)(int);
};

TEST_F(CollectorTest, FailsWithoutRemainsWhenWritingFails) {
  {
    const FileSizeLimit limit(50'000);
    expectFailure(collect(folderRequest()), "copy", paths.basebandLogs + "/diag.log");
  }
  // The copies have room, the archive of what cannot be compressed has not.
  std::string noise(60'000, '\0');
  std::uint32_t state = 1;
  for (char& byte : noise) {
    byte = static_cast<char>((state = state * 1664525 + 1013904223) >> 24);
  }
  fs::remove(paths.basebandLogs + "/diag.log");
  writeFile(paths.basebandLogs + "/diag.1", noise);
  writeFile(paths.basebandLogs + "/diag.2", noise);
  const FileSizeLimit limit(100'000);
  expectFailure(collect({}), "zip_close", paths.managerStaging);
}

TEST_F(CollectorTest, TakesACoreDumpOnlyFromARunningDaemon) {
  CollectionRequest request = folderRequest();
  request.kind = LogKind::kTelephonyWithCoredump;
  expectFailure(collect(request), "vexild does not run", paths.basebandControl);
}

TEST_F(CollectorTest, ClearsWhatAKilledCollectionHasLeft) {
  writeFile(paths.managerStaging + "/snapshot/kst-info.txt", "half");
  writeFile(paths.managerStaging + "/snapshot.zip.a1b2c3", "half");
  writeFile(paths.helperStaging + "/snapshot/kst-info.txt", "somebody else's");
  EXPECT_FALSE(Collector(paths, paths.managerStaging, {}).clearStaging());
  EXPECT_THAT(namesIn(paths.managerStaging), IsEmpty());
  EXPECT_THAT(namesIn(paths.helperStaging), SizeIs(1));

  // A collection does not mix with remains either.
  writeFile(paths.managerStaging + "/snapshot/stale.log", "stale");
  EXPECT_THAT(contentOf(collectFolder()), SizeIs(4));
}

TEST_F(CollectorTest, KeepsTheLatestSnapshots) {
  writeFile(paths.snapshots + "/notes.txt", "no snapshot");
  std::vector<std::string> made;
  for (int round = 0; round < 6; ++round) {
    const CollectionOutcome outcome = collect(folderRequest(), {.number = 3, .maximumAge = 3600});
    ASSERT_EQ(outcome.result.status, 0) << outcome.result.text;
    made.push_back("log-bb-" + outcome.timestamp + "-telephony");
  }
  EXPECT_THAT(namesIn(paths.snapshots), ElementsAre(made[3], made[4], made[5], "notes.txt"));
}

TEST_F(CollectorTest, RemovesSnapshotsOfTheAgeLimitButNotTheNewOne) {
  const std::string old = collectFolder();
  // The age is a difference of whole seconds between clock readings: beyond two, it is at least
  // one.
  struct stat status {};
  ASSERT_EQ(stat(old.c_str(), &status), 0);
  while (time(nullptr) - status.st_ctime < 2) {
    usleep(20'000);
  }
  const CollectionOutcome outcome = collect(folderRequest(), {.number = 32, .maximumAge = 2});
  EXPECT_THAT(namesIn(paths.snapshots), ElementsAre("log-bb-" + outcome.timestamp + "-telephony"));
}

TEST_F(CollectorTest, WaitsForTheDaemonThatWritesTheLogs) {
  writeFile(lockFileOf(paths.telephonyLogs), "");
  int locked[2];
  ASSERT_EQ(pipe(locked), 0);
  const pid_t daemon = fork();
  if (daemon == 0) {
    const int file = open(lockFileOf(paths.telephonyLogs).c_str(), O_RDWR);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    fcntl(file, F_SETLKW, &lock);
    static_cast<void>(!write(locked[1], "x", 1));
    // Long enough for a collection that does not wait to be over.
    usleep(300'000);
    writeFile(paths.telephonyLogs + "/telephony.log", "call\nended\n");
    _exit(0);
  }
  char byte = 0;
  ASSERT_EQ(read(locked[0], &byte, 1), 1);
  EXPECT_EQ(contentOf(collectFolder()).at("TelephonyLog/telephony.log"), "call\nended\n");
  waitpid(daemon, nullptr, 0);
  close(locked[0]);
  close(locked[1]);
}

}  // namespace
}  // namespace collection
