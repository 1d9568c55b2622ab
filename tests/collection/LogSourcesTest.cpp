#include "collection/LogSources.h"

#include "collection/CollectionError.h"
#include "tests/collection/DeviceTest.h"

namespace collection {
namespace {

using kst::support::Descriptor;
using std::chrono::milliseconds;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using Logs = std::map<std::string, std::string>;

class LogSourcesTest : public DeviceTest {
 protected:
  /// Opens all logs, and does `deed` when it has read those of a batch; gives their contents.
  Logs open(const std::function<void()>& deed = [] {}) {
    report = {};
    batches = 0;
    Logs logs;
    LogSources sources(paths.scratch, {"TelephonyLog", "DIAG.scratch"}, limits, deadline, report);
    for (auto batch = sources.openNext(); !batch.empty(); batch = sources.openNext()) {
      ++batches;
      EXPECT_LE(batch.size(), mostAtOnce);
      std::uint64_t size = 0;
      for (OpenLog& log : batch) {
        EXPECT_GE(log.record.size, std::exchange(size, log.record.size));
        const std::string path = "/proc/self/fd/" + std::to_string(log.file.get());
        EXPECT_TRUE(logs.emplace(log.record.name, readFile(path)).second) << log.record.name;
        report.add(log.record);
      }
      batch.clear();
      deed();
    }
    return logs;
  }

  std::string info() { return report.info({}, {}); }

  /// Behind the lock and the folder itself of both sources, nothing can be opened.
  void failEveryLog(int error) {
    calls.before = [error, opened = 0](const std::string& function) mutable {
      return function == "openat" && ++opened > 4 ? error : 0;
    };
  }

  const std::string telephony = paths.telephonyLogs;
  Report report;
  const Deadline deadline{std::chrono::hours(1), isCancelled};
  int batches = 0;
  std::size_t mostAtOnce = SIZE_MAX;
};

TEST_F(LogSourcesTest, OpensRegularFilesAndTellsOfAllElse) {
  EXPECT_THAT(open(), IsEmpty());
  EXPECT_EQ(report.entryCount(), 0);
  const std::string odd = oddName + "\u202e";  // NOLINT(misc-misleading-bidirectional)
  makeLogs("TelephonyLog/telephony.log=call DIAG.scratch/empty TelephonyLog/fifo|");
  makeLogs("TelephonyLog/dangling>none TelephonyLog/loop>.");
  makeLogs("TelephonyLog/link>" + makeFile("outside/secret"));
  makeLog("TelephonyLog/.hidden/" + odd, "odd");
  // A second name of a file of the owner's own is as good as the first.
  EXPECT_EQ(link((telephony + "/telephony.log").c_str(), (telephony + "/second").c_str()), 0);
  EXPECT_EQ(mknod((telephony + "/socket").c_str(), S_IFSOCK | 0666, 0), 0);
  const bool hasDevice = mknod((telephony + "/device").c_str(), S_IFCHR | 0666, 0x103) == 0;
  for (const bool typesAreUnknown : {false, true}) {
    calls.typesAreUnknown = typesAreUnknown;
    EXPECT_EQ(open(), (Logs{{"TelephonyLog/telephony.log", "call"},
                            {"TelephonyLog/.hidden/" + odd, "odd"},
                            {"TelephonyLog/second", "call"},
                            {"DIAG.scratch/empty", ""}}));
    for (const std::string told :
         {"link: left out: a link", "dangling: left out: a link", "loop: left out: a link",
          "fifo: left out: a FIFO", "socket: left out: a socket",
          hasDevice ? "device: left out: a device" : ""}) {
      EXPECT_THAT(info(), HasSubstr(told + "\n"));
    }
    EXPECT_EQ(report.summary(), "");
  }
  const Descriptor folder(kst::support::openPath(telephony, O_RDONLY | O_DIRECTORY, 0));
  EXPECT_EQ(openLog(folder.get(), "second", geteuid() + 1).record.fate, Fate::kLeftOut);
  unlink((telephony + "/second").c_str());
  EXPECT_TRUE(openLog(folder.get(), "telephony.log", geteuid() + 1).file);
}

TEST_F(LogSourcesTest, TellsWhatItMayNotRead) {
  makeLogs("TelephonyLog/log TelephonyLog/folder/log");
  failEveryLog(EACCES);
  EXPECT_THAT(open(), IsEmpty());
  EXPECT_THAT(info(), testing::AllOf(HasSubstr("TelephonyLog/log: unreadable: Permission"),
                                     HasSubstr("TelephonyLog/folder/: unreadable: Permission")));
  calls.fail("readdir", EIO, 4);
  EXPECT_THAT(open(), SizeIs(testing::Lt(2U)));
  EXPECT_THAT(info(), HasSubstr("/: unreadable: Input/output error"));
  kst::support::removeTree(paths.scratch);
  make("outside/TelephonyLog/secret " + paths.scratch + ">" + directory / "outside");
  EXPECT_THAT(open(), IsEmpty());
  EXPECT_THAT(info(), HasSubstr("Kestrane/: unreadable: Not a directory"));
}

// Whatever step of the walk the folder's owner plays his trick before.
TEST_F(LogSourcesTest, CannotBeLedAstray) {
  const std::string outside = directory / "outside";
  const std::pair<std::string, std::string> tricks[] = {{"", outside},
                                                        {"/a", outside},
                                                        {"/a/b", outside},
                                                        {"/a", ""},  // a FIFO
                                                        {"/log", outside + "/log"},
                                                        {"/a/b/log", outside + "/log"},
                                                        {"/log", ""}};
  for (const auto& [below, target] : tricks) {
    const std::string path = telephony + below;
    int played = 0;
    int steps = 1;
    for (int moment = 0; moment < steps; ++moment) {
      kst::support::removeTree(paths.scratch);
      for (const std::string name : {"/log", "/b/log", "/a/b/log", "/a/log"}) {
        makeFile("outside" + name, "secret");
        makeLog("TelephonyLog" + name, "log");
      }
      const std::string trap = directory / "trap";
      make(target.empty() ? "trap|" : "trap>" + target);
      int step = 0;
      calls.before = [&, place = path](const std::string& function) {
        const bool isStep =
            function == "openat" || function == "readdir" || function.starts_with("fstat");
        if (isStep && step++ == moment) {
          played +=
              renameat2(AT_FDCWD, trap.c_str(), AT_FDCWD, place.c_str(), RENAME_EXCHANGE) == 0;
        }
        steps = std::max(steps, step);
        return 0;
      };
      for (const auto& [name, content] : open()) {
        ASSERT_EQ(content, "log") << name << " before step " << moment << ", " << path;
      }
      calls.before = nullptr;
      std::filesystem::remove_all(trap);
    }
    EXPECT_GT(played, 10) << path;
  }
}

// After whatever batch the daemon renames all its logs. Another owner's are not kept waiting.
TEST_F(LogSourcesTest, LosesNoLogThatIsRenamedMeanwhile) {
  const Descriptor lock = openLock("TelephonyLog");
  constexpr int kLogs = 100;
  const auto path = [this](int log) { return telephony + "/log." + std::to_string(log); };
  makeLogs("DIAG.scratch/diag.log=diag TelephonyLog/");
  std::set<std::string> contents{"diag"};
  for (int log = 0; log < kLogs; ++log) {
    contents.insert(std::to_string(log));
    std::ofstream(path(log)) << log;
  }
  const ResourceLimit few(RLIMIT_NOFILE, 24);
  mostAtOnce = 12;
  int moment = 0;
  int later = 0;
  do {
    ++moment;
    const Logs logs = open([&] {
      EXPECT_TRUE(batches > 1 || info().find("diag.log") != std::string::npos);
      for (int log = kLogs - 1 + moment; batches == moment && log >= moment; --log) {
        EXPECT_TRUE(setLock(lock, F_WRLCK));
        EXPECT_EQ(rename(path(log - 1).c_str(), path(log).c_str()), 0);
        EXPECT_TRUE(setLock(lock, F_UNLCK));
      }
    });
    std::set<std::string> found;
    for (const auto& [name, content] : logs) {
      found.insert(content);
      later += name.starts_with("TelephonyLog.later/log.") ? 1 : 0;
    }
    EXPECT_EQ(found, contents) << moment;
    EXPECT_TRUE(report.summary().empty() || report.summary().starts_with("1 log is gone"));
  } while (batches > moment);
  EXPECT_GT(moment, 5);
  EXPECT_GT(later, 0);
}

TEST_F(LogSourcesTest, TriesAgainWhenDescriptorsRunOut) {
  makeLogs("TelephonyLog/a TelephonyLog/b TelephonyLog/c/d TelephonyLog/c/e/f TelephonyLog/g");
  int number = 0;
  int opened = 0;
  int retried = 0;
  do {
    ++number;
    opened = 0;
    calls.fail("openat", number % 2 == 0 ? EMFILE : ENFILE, number, [&] { opened = number; });
    const Logs logs = open();
    EXPECT_TRUE(logs.size() == 5 || !report.summary().empty()) << number;
    retried += batches > 1 && report.summary().empty() ? 1 : 0;
  } while (opened == number);
  EXPECT_GE(retried, 4);  // once a log was open
  // And if none can be opened at all, not for ever.
  failEveryLog(EMFILE);
  isCancelled = [asked = 0]() mutable { return ++asked > 100; };
  EXPECT_THAT(open(), IsEmpty());
  EXPECT_THAT(report.summary(), HasSubstr("unreadable"));
}

TEST_F(LogSourcesTest, HoldsALockOnlyWhileItLooksAtTheFolder) {
  const Descriptor lock = openLock("TelephonyLog");
  makeLogs("TelephonyLog/a TelephonyLog/b TelephonyLog/c");
  int locked = 0;
  const auto isFree = [&] { return setLock(lock, F_WRLCK) && setLock(lock, F_UNLCK); };
  calls.at("readdir", 0, [&] {
    readFile(lockFileOf(telephony));  // its end would end a lock of the process
    locked += isFree() ? 0 : 1;
    calls.passed += milliseconds(20);  // more than a daemon may be held up
  });
  isCancelled = [&] { return !isFree(); };
  EXPECT_THAT(open([&] { EXPECT_TRUE(isFree()); }), SizeIs(3));
  EXPECT_EQ(batches, 3);
  EXPECT_GE(locked, 2 * 6);  // two walks over all entries, "." and ".." among them
}

TEST_F(LogSourcesTest, WaitsForALockOnceAndNotForEver) {
  const Descriptor lock = openLock("TelephonyLog");
  makeLog("TelephonyLog/log", "half");
  ASSERT_TRUE(setLock(lock, F_WRLCK));
  isCancelled = [&, asked = 0]() mutable {
    if (++asked == 10) {
      makeLog("TelephonyLog/log", "whole");
      setLock(lock, F_UNLCK);
    }
    return false;
  };
  EXPECT_EQ(open(), (Logs{{"TelephonyLog/log", "whole"}}));
  EXPECT_EQ(report.summary(), "");

  makeLogs("TelephonyLog/another DIAG.scratch/diag.log");
  ASSERT_TRUE(setLock(lock, F_WRLCK));
  calls.at("readdir", 0, [&] { calls.passed += milliseconds(20); });  // more than it holds a lock
  limits.lockTime = std::chrono::seconds(10);
  isCancelled = [&] {
    calls.passed += milliseconds(250);
    return false;
  };
  EXPECT_THAT(open(), SizeIs(3));
  EXPECT_GT(batches, 1);
  EXPECT_GE(calls.passed, limits.lockTime);
  EXPECT_LT(calls.passed, 2 * limits.lockTime);
  EXPECT_EQ(report.summary(), "TelephonyLog was not locked: its lock was held for 10000 ms");

  calls.passed = {};
  const Deadline soon(limits.lockTime / 2, isCancelled);
  LogSources(paths.scratch, {"TelephonyLog"}, limits, soon, report).openNext();
  EXPECT_LT(calls.passed, limits.lockTime);
  isCancelled = [asked = 0]() mutable { return ++asked > 5; };
  EXPECT_THROW(open(), CollectionError);
}

TEST_F(LogSourcesTest, CanDoWithoutALock) {
  const std::string path = lockFileOf(telephony);
  makeLog("TelephonyLog/log");
  for (const std::string told : {" is no regular file", ": No locks available"}) {
    make(path + (told.starts_with(":") ? "" : "|"));
    calls.fail("fcntl", ENOLCK, 0);
    EXPECT_THAT(open(), SizeIs(1));
    EXPECT_EQ(report.summary(), "TelephonyLog was not locked: its lock" + told);
    remove(path.c_str());
  }
}

}  // namespace
}  // namespace collection
