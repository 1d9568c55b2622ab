#include "collection/Snapshots.h"

#include <sys/file.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "collection/CollectionError.h"
#include "tests/collection/DeviceTest.h"

namespace collection {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
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
      makeIn(paths.snapshots, nameOf(day) + (day % 2 == 0 ? "/DIAG.scratch/log" : ""),
             std::string(kSome, 'x'));
    }
    for (const auto& name : foreign) {
      makeIn(paths.snapshots, name, std::string(kSome, 'x'));
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
    return names == Names(foreign.begin() + 1, foreign.end()) ? days : "0";
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
    const auto name = SnapshotName::read("log-bb-" + time + suffix);
    ASSERT_TRUE(name) << suffix;
    EXPECT_TRUE(name->timestamp == time && name->suffix == suffix);
  }
  for (const std::string name :
       {"", "log-bb-2026-11-16-13-35-08-123", "log-bb-2026-11-16-13-35-08-123-diag.zip",
        "log-bb-2026-11-16-13-35-08-12-diag", "log-bb-2026-13-16-13-35-08-123-diag",
        "log-bb-2026-11-16-13-35-08-1x3-diag", "log-bb-2026-11-16_13-35-08-123-diag",
        ".log-bb-2026-11-16-13-35-08-123-diag"}) {
    EXPECT_FALSE(SnapshotName::read(name)) << name;
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
    makeIn(paths.staging, isFile ? "snapshot.zip" : "snapshot/log", each.suffix);
    const std::string another =
        paths.snapshots + "/log-bb-1970-01-01-00-" + each.taken + each.suffix;
    calls.before = [&](const std::string& function) {
      if (function != "renameat2") {
        return 0;
      }
      if (!isThere(another)) {  // right before the name is taken, it is somebody else's
        std::ofstream(another) << "another";
      }
      return each.error;
    };
    const SnapshotName name = store.publish(isFile, kLastMoment, each.suffix);
    calls.before = nullptr;
    EXPECT_TRUE(name.timestamp == each.timestamp && name.suffix == each.suffix) << name.text();
    EXPECT_EQ(contentOf(paths.snapshots + "/" + name.text() + (isFile ? "" : "/log")), each.suffix);
    EXPECT_EQ(contentOf(another), "another");
    EXPECT_THAT(namesIn(paths.staging), IsEmpty());
  }
}

TEST_F(SnapshotsTest, RemovesTheOldestBeyondTheLimits) {
  constexpr time_t kDay = 86'400;
  const auto bounds = [](std::size_t snapshots, std::size_t keepNewest, int maxDays = 9999,
                         std::uint64_t maxTotal = UINT64_MAX) {
    Limits some;
    std::tie(some.maxSnapshots, some.keepNewest, some.maxTotal) =
        std::tie(snapshots, keepNewest, maxTotal);
    some.maxAge = std::chrono::days(maxDays);
    return some;
  };
  const struct {
    Limits limits;
    int newest;
    time_t now;  // in days
    const char* left;
  } cases[] = {
      {bounds(6, 3), 6, 9, "123456"},
      {bounds(4, 3), 6, 9, "3456"},
      {bounds(1, 5), 6, 9, "23456"},
      {bounds(1, 0), 6, 9, "6"},
      {bounds(32, 0, 5), 6, 9, "456"},   // of exactly the age: stays
      {bounds(32, 0, 5), 6, 5000, "6"},  // the clock jumped
      {bounds(32, 3, 5), 6, 5000, "456"},
      {bounds(32, 0, 5), 6, -5000, "123456"},  // all of the future
      {bounds(2, 0), 1, 1, "16"},              // the clock was set back
      {bounds(1, 3), 2, 1, "256"},
      {bounds(32, 0, 9999, 3 * kSome + kSome / 2), 6, 9, "456"},
      {bounds(32, 5, 9999, 3 * kSome + kSome / 2), 6, 9, "23456"},
      {bounds(32, 0, 9999, 1), 6, 9, "6"},
      {bounds(32, 0, 9999, 1), 1, 9, "1"},
  };
  for (const auto& each : cases) {
    makeSix();
    limits = each.limits;
    calls.now = each.now * kDay - kDay;  // the first day is that of time 0
    const SnapshotStore store = open();
    EXPECT_FALSE(store.removeOld(SnapshotName::read(nameOf(each.newest)).value()));
    EXPECT_EQ(daysLeft(), each.left) << &each - cases;
    EXPECT_THAT(namesIn(paths.staging), IsEmpty());
  }
  makeSix();
  limits = bounds(1, 1);
  const SnapshotStore store = open();
  for (const auto& [function, left] : {std::pair("renameat", "123456"), {"unlinkat", "23456"}}) {
    calls.fail(function, EBUSY, 0);
    EXPECT_THAT(store.removeOld(SnapshotName::read(nameOf(6)).value()).value_or(""),
                HasSubstr("remove " + paths.snapshots + "/" + nameOf(1)));
    calls.before = nullptr;
    EXPECT_EQ(daysLeft(), left);
  }
}

TEST_F(SnapshotsTest, RemovesOldOnesForRoomOnlyWhereItMustAndWhereItHelps) {
  constexpr std::uint64_t kBlock = kSome / 2;
  const char* const lacks = "no room on the disk beside keep_free";
  const struct {
    std::uint64_t more;  // in blocks
    std::size_t keepNewest;
    KeptRoom kept;
    std::size_t freed;  // by each snapshot that goes, in blocks
    const char* lacking;
    const char* left;
  } cases[] = {// Of 1000 blocks 14 are free.
               {14, 0, {0, 0}, 2, "", "123456"},
               {15, 0, {0, 0}, 2, "", "23456"},
               {17, 3, {0, 0}, 2, "", "3456"},
               {20, 3, {0, 0}, 2, "", "456"},
               {21, 3, {0, 0}, 2, lacks, "123456"},
               {20, 3, {0, 0}, 0, lacks, "456"},
               {26, 0, {0, 0}, 2, "", ""},
               {4, 0, {0, 1}, 2, "", "123456"},
               {5, 0, {0, 1}, 2, "", "23456"},
               {4, 0, {10 * kBlock, 0}, 2, "", "123456"},
               {5, 0, {10 * kBlock, 0}, 2, "", "23456"}};
  for (const auto& each : cases) {
    makeSix();
    limits.keepNewest = each.keepNewest;
    limits.keepFree = each.kept;
    calls.before = [&](const std::string& function) {
      if (function == "fstatvfs") {
        struct statvfs status {};
        status.f_frsize = kBlock;
        status.f_bsize = 7 * kBlock;
        status.f_blocks = 1000;
        status.f_bavail = 14 + each.freed * (6 - daysLeft().size());
        status.f_bfree = 999;  // with what is not ours
        calls.fileSystem = status;
      }
      return 0;
    };
    SnapshotStore store = open();
    EXPECT_EQ(store.makeRoom(0, each.more * kBlock).value_or(""), each.lacking);
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
  const struct {
    std::uint64_t available;  // in MiB; others fill the disk, too
    std::uint64_t taken;
    std::uint64_t more;
    bool hasRoom;
  } cases[] = {{500, 0, 1, true},
               {0, 15 * kMega, kMega, true},
               {0, 15 * kMega, kMega + 1, false},
               {2, 16 * kMega, 2 * kMega, true},
               {0, 16 * kMega, 2 * kMega + 1, false}};
  for (const auto& each : cases) {
    calls.fileSystem->f_bavail = each.available;
    EXPECT_EQ(!store.makeRoom(each.taken, each.more), each.hasRoom) << &each - cases;
  }
  limits.maxTotal = 100;
  EXPECT_FALSE(store.makeRoom(40, 60));
  EXPECT_EQ(store.makeRoom(40, 61).value_or(""), "no room within max_total");
}

TEST_F(SnapshotsTest, ClearsItsOwnRemainsAlone) {
  makeFile("outside/kept");
  for (const std::string name : {"snapshot", "snapshot.zip", "removed"}) {
    makeIn(paths.staging, name + "/a/half");
    makeIn(paths.staging, "other/half");
    { const SnapshotStore store = open(); }
    EXPECT_THAT(namesIn(paths.staging), ElementsAre("other"));
    EXPECT_EQ(symlink((directory / "outside").c_str(), (paths.staging + "/" + name).c_str()), 0);
    {
      const SnapshotStore store = open();
      EXPECT_THAT(namesIn(paths.staging), ElementsAre("other"));
      makeIn(paths.staging, name, "not published");
    }
    EXPECT_THAT(namesIn(paths.staging), ElementsAre("other"));
    EXPECT_THAT(entries("outside"), ElementsAre("kept"));
  }
}

TEST_F(SnapshotsTest, TrustsNoFolderButItsOwn) {
  makeFile("outside/snapshot/kept");
  chmod((directory / "outside").c_str(), 0777);
  std::string foreignFolder = directory / "foreign";
  makeFile("foreign/snapshot/kept");
  if (chown(foreignFolder.c_str(), 65533, 65533) != 0) {
    foreignFolder = "/usr";  // an ordinary user cannot give a folder away
  }
  makeFile("file");
  makeLink("link", directory / "outside");
  for (const auto& path : {foreignFolder, directory / "link", directory / "file"}) {
    for (const bool isStaging : {false, true}) {
      std::string told;
      try {
        SnapshotStore(isStaging ? path : paths.staging, isStaging ? paths.snapshots : path, limits,
                      isCancelled);
      } catch (const CollectionError& error) {
        told = error.what();
      }
      EXPECT_THAT(told, testing::AnyOf("open " + path + ": Not a directory",
                                       testing::StartsWith(path + " belongs to the user ")));
    }
  }
  EXPECT_EQ(modeOf(directory / "outside"), 0777);
  EXPECT_TRUE(isThere(directory / "outside/snapshot/kept"));
  EXPECT_TRUE(isThere(directory / "foreign/snapshot/kept"));

  // What others might do in a folder of ours is taken away, whatever the umask.
  umask(0);
  const std::string own = directory / "own/staging";
  const auto modeOfOwn = [&] {
    const SnapshotStore store(own, paths.snapshots, limits, isCancelled);
    return modeOf(own);
  };
  EXPECT_EQ(modeOfOwn(), 0750);
  EXPECT_EQ(modeOf(directory / "own"), 0755);
  for (const auto& [before, after] : {std::pair(0777U, 0750U), {0700, 0700}, {02750, 0750}}) {
    EXPECT_TRUE(kst::support::changeMode(own, before));
    EXPECT_EQ(modeOfOwn(), after);
  }
}

}  // namespace
}  // namespace collection
