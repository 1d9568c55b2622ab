#include "collection/SnapshotStore.h"

#include <sys/file.h>

#include <tuple>

#include "collection/CollectionError.h"
#include "tests/collection/DeviceTest.h"

namespace collection {
namespace {

using testing::IsEmpty;

using Names = std::vector<std::string>;

constexpr timeval kLastMoment{.tv_sec = 59, .tv_usec = 998'500};

class SnapshotsTest : public DeviceTest {
 protected:
  SnapshotStore open() { return {paths.staging, paths.snapshots, limits, isCancelled}; }

  /// Snapshots of the first six days of 1970, each of 64 KiB and some, not made in the order of
  /// their names. Among them stands what is no snapshot of ours.
  void makeSix() {
    kst::support::removeTree(paths.snapshots);
    for (const int day : {4, 6, 1, 5, 2, 3}) {
      makeFile(paths.snapshots + "/" + nameOf(day) + (day % 2 == 0 ? "/DIAG.scratch/log" : ""),
               std::string(kSome, 'x'));
    }
    for (const auto& name : foreign) {
      makeFile(paths.snapshots + "/" + name, std::string(kSome, 'x'));
    }
    // An ordinary user cannot give a file away.
    if (chown((paths.snapshots + "/" + foreign[0]).c_str(), 65533, 65533) != 0) {
      unlink((paths.snapshots + "/" + foreign[0]).c_str());
    }
  }

  static std::string nameOf(int day) {
    return "log-bb-1970-01-0" + std::to_string(day) + "-00-00-00-000" +
           (day % 2 == 0 ? "-bb-trace" : "-baseband.zip");
  }

  /// The days whose snapshots are left; 0 if something else is missing.
  [[nodiscard]] std::string daysLeft() const {
    std::string days;
    Names names = namesIn(paths.snapshots);
    for (int day = 1; day <= 6; ++day) {
      days += std::erase(names, nameOf(day)) > 0 ? std::to_string(day) : "";
    }
    std::erase(names, foreign[0]);
    return names.size() == foreign.size() - 1 ? days : "0";
  }

  static constexpr std::uint64_t kSome = 65'536;
  const Names foreign = {"log-bb-1969-01-01-00-00-00-000-telephony",
                         "log-bb-1969-01-01-00-00-00-000", "log-bb-1969-01-01-00-00-00-000-other",
                         "notes"};
};

TEST_F(SnapshotsTest, ReadsNamesOfSnapshotsAlone) {
  const std::string time = "2026-11-16-13-35-08-123";
  for (const std::string suffix : {"-telephony", "-telephony.zip", "-coredump", "-coredump.zip",
                                   "-baseband.zip", "-diag", "-bb-trace"}) {
    EXPECT_EQ(SnapshotName::read("log-bb-" + time + suffix), (SnapshotName{time, suffix}));
  }
  for (const std::string name : {"2026-11-16-13-35-08-123-diag.zip", "2026-11-16-13-35-08-12-diag",
                                 "2026-13-16-13-35-08-123-diag", "2026-11-16-13-35-08-1x3-diag",
                                 "2026-11-16_13-35-08-123-diag"}) {
    EXPECT_FALSE(SnapshotName::read("log-bb-" + name)) << name;
  }
}

TEST_F(SnapshotsTest, NoTwoSnapshotsShareATimestampAndNoneIsReplaced) {
  const struct {
    int error;  // EINVAL: of a file system without the flag
    std::string suffix;
    const char* taken;
    const char* timestamp;
  } cases[] = {{0, "-bb-trace", "00-59-998", "1970-01-01-00-00-59-999"},
               {0, "-baseband.zip", "01-00-000", "1970-01-01-00-01-00-001"},
               {EINVAL, "-baseband.zip", "01-00-002", "1970-01-01-00-01-00-003"}};
  for (const auto& each : cases) {
    const bool isFile = each.suffix == "-baseband.zip";
    SnapshotStore store = open();
    makeFile(paths.staging + (isFile ? "/snapshot.zip" : "/snapshot/log"), each.suffix);
    const std::string another =
        paths.snapshots + "/log-bb-1970-01-01-00-" + each.taken + each.suffix;
    calls.fail("renameat2", each.error, 0, [&] {
      makeFile(another, "another");  // right before the name is taken, it is somebody else's
    });
    const SnapshotName name = store.publish(isFile, kLastMoment, each.suffix);
    calls.before = nullptr;
    EXPECT_EQ(name, (SnapshotName{each.timestamp, each.suffix}));
    EXPECT_EQ(readFile(paths.snapshots + "/" + name.text() + (isFile ? "" : "/log")), each.suffix);
    EXPECT_EQ(readFile(another), "another");
    EXPECT_THAT(namesIn(paths.staging), IsEmpty());
  }
}

TEST_F(SnapshotsTest, RemovesTheOldestBeyondTheLimits) {
  constexpr std::uint64_t kAny = UINT64_MAX;
  constexpr std::uint64_t kThree = 3 * kSome + kSome / 2;
  const struct {
    std::size_t maxSnapshots;
    std::size_t keepNewest;
    int maxDays;
    std::uint64_t maxTotal;
    int newest;
    int now;  // in days
    const char* left;
  } cases[] = {{6, 3, 9999, kAny, 6, 9, "123456"},   {4, 3, 9999, kAny, 6, 9, "3456"},
               {1, 5, 9999, kAny, 6, 9, "23456"},    {1, 0, 9999, kAny, 6, 9, "6"},
               {32, 0, 5, kAny, 6, 9, "456"},         // of exactly the age: stays
               {32, 3, 5, kAny, 6, 5000, "456"},      // the clock jumped
               {32, 0, 5, kAny, 6, -5000, "123456"},  // all of the future
               {1, 3, 9999, kAny, 2, 1, "256"},       // the clock was set back
               {32, 0, 9999, kThree, 6, 9, "456"},   {32, 5, 9999, kThree, 6, 9, "23456"},
               {32, 0, 9999, 1, 1, 9, "1"}};
  for (const auto& each : cases) {
    makeSix();
    limits.maxSnapshots = each.maxSnapshots;
    limits.keepNewest = each.keepNewest;
    limits.maxAge = std::chrono::days(each.maxDays);
    limits.maxTotal = each.maxTotal;
    calls.now = (each.now - 1) * 86'400;  // the first day is that of time 0
    const SnapshotName newest = SnapshotName::read(nameOf(each.newest)).value();
    EXPECT_FALSE(open().removeOld(newest, [] { return false; }));
    EXPECT_EQ(daysLeft(), "123456") << &each - cases;
    EXPECT_FALSE(open().removeOld(newest, [] { return true; }));
    EXPECT_EQ(daysLeft(), each.left) << &each - cases;
  }
}

TEST_F(SnapshotsTest, RemovesOldOnesForRoomOnlyWhereItMustAndWhereItHelps) {
  constexpr std::uint64_t kBlock = kSome / 2;
  const struct {
    std::uint64_t more;  // in blocks
    std::size_t keepNewest;
    KeptRoom kept;
    std::size_t freed;  // by each snapshot that goes, in blocks
    bool hasRoom;
    const char* left;
  } cases[] = {// Of 1000 blocks 14 are free.
               {14, 0, {0, 0}, 2, true, "123456"},
               {17, 3, {0, 0}, 2, true, "3456"},
               {20, 3, {0, 0}, 2, true, "456"},
               {21, 3, {0, 0}, 2, false, "123456"},
               {20, 3, {0, 0}, 0, false, "456"},
               {26, 0, {0, 0}, 2, true, ""},
               {4, 0, {0, 1}, 2, true, "123456"},
               {5, 0, {0, 1}, 2, true, "23456"},
               {4, 0, {10 * kBlock, 0}, 2, true, "123456"},
               {5, 0, {10 * kBlock, 0}, 2, true, "23456"}};
  for (const auto& each : cases) {
    makeSix();
    limits.keepNewest = each.keepNewest;
    limits.keepFree = each.kept;
    calls.at("fstatvfs", 0, [&] {
      struct statvfs& status = calls.fileSystem.emplace();
      status.f_frsize = kBlock;
      status.f_bsize = 7 * kBlock;
      status.f_blocks = 1000;
      status.f_bavail = 14 + each.freed * (6 - daysLeft().size());
      status.f_bfree = 999;  // with what is not ours
    });
    EXPECT_EQ(open().makeRoom(0, each.more * kBlock).value_or(""),
              each.hasRoom ? "" : "no room on the disk beside keep_free");
    calls.before = nullptr;
    EXPECT_EQ(daysLeft(), each.left) << each.more;
  }
}

TEST_F(SnapshotsTest, LooksForRoomAgainAndAgain) {
  calls.fileSystem.emplace();
  calls.fileSystem->f_frsize = 1 << 20;
  calls.fileSystem->f_blocks = 1000;
  SnapshotStore store = open();
  constexpr std::uint64_t kMega = 1 << 20;
  // What is available is in MiB; others fill the disk, too.
  for (const auto& [available, taken, more, hasRoom] : {std::tuple(500UL, 0UL, 1UL, true),
                                                        {0, 15 * kMega, kMega, true},
                                                        {0, 15 * kMega, kMega + 1, false},
                                                        {2, 16 * kMega, 2 * kMega, true},
                                                        {0, 16 * kMega, 2 * kMega + 1, false}}) {
    calls.fileSystem->f_bavail = available;
    EXPECT_EQ(!store.makeRoom(taken, more), hasRoom) << taken << ' ' << more;
  }
  limits.maxTotal = 100;
  EXPECT_FALSE(store.makeRoom(40, 60));
  EXPECT_EQ(store.makeRoom(40, 61).value_or(""), "no room within max_total");
}

TEST_F(SnapshotsTest, ClearsItsOwnRemainsAlone) {
  const std::string& staging = paths.staging;
  make("outside/kept");
  for (const std::string name : {"/snapshot", "/snapshot.zip", "/removed"}) {
    for (const auto& remains : Names{"/a/half", "=half", ">" + directory / "outside"}) {
      make(staging + name + remains + " " + staging + "/other/half");
      const SnapshotStore store = open();
      EXPECT_EQ(tree(staging), "other/half");
      make(staging + name + remains);  // and is not published
    }
    static_cast<void>(open());
    EXPECT_EQ(tree(staging) + " " + tree("outside"), "other/half kept");
  }
}

TEST_F(SnapshotsTest, TrustsNoFolderButItsOwn) {
  make("outside/snapshot/kept foreign/snapshot/kept file link>" + directory / "outside");
  chmod((directory / "outside").c_str(), 0777);
  const bool mayGive = chown((directory / "foreign").c_str(), 65533, 65533) == 0;
  for (const auto& path :
       {mayGive ? directory / "foreign" : "/usr", directory / "link", directory / "file"}) {
    for (const bool isStaging : {false, true}) {
      std::string told;
      try {
        SnapshotStore(isStaging ? path : directory / "own", isStaging ? directory / "own" : path,
                      limits, isCancelled);
      } catch (const CollectionError& error) {
        told = error.what();
      }
      EXPECT_THAT(told, testing::AnyOf("open " + path + ": Not a directory",
                                       testing::StartsWith(path + " belongs to the user ")));
    }
  }
  EXPECT_EQ(modeOf(directory / "outside"), 0777);
  EXPECT_EQ(tree("outside") + " " + tree("foreign"), "snapshot/kept snapshot/kept");

  // What others might do in a folder of ours is taken away, whatever the umask.
  umask(0);
  const std::string own = directory / "new/snapshots";
  for (const auto& [before, after] :
       {std::pair(0U, 0750U), {0777, 0750}, {0700, 0700}, {0707, 0700}, {02750, 0750}}) {
    for (const std::string& made : {paths.staging, own}) {
      EXPECT_TRUE(before == 0 || kst::support::changeMode(made, before));
    }
    const SnapshotStore store(paths.staging, own, limits, isCancelled);
    EXPECT_EQ(modeOf(own), after);
    EXPECT_EQ(modeOf(paths.staging), 0700);  // who could open it could lock it
  }
  EXPECT_EQ(modeOf(directory / "new"), 0755);
}

}  // namespace
}  // namespace collection
