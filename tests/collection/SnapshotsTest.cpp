#include "collection/Snapshots.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>

#include "tests/collection/TemporaryDevice.h"

namespace collection {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;

class SnapshotsTest : public testing::Test {
 protected:
  SnapshotsTest() {
    setenv("TZ", "UTC", 1);  // NOLINT(concurrency-mt-unsafe): the test has one thread
    tzset();
    fs::create_directories(folder);
  }

  Failure publishFolder(timeval start, const std::string& suffix) {
    writeFile(staged + "/kst-info.txt", suffix);
    return publishSnapshot(staged, folder, start, suffix, published);
  }

  Failure publishFile(timeval start, const std::string& suffix) {
    writeFile(staged, suffix);
    return publishSnapshot(staged, folder, start, suffix, published);
  }

  const TemporaryDevice device;
  const std::string folder = device.paths().snapshots;
  const std::string staged = device.root() + "/staged";
  Snapshot published;
};

TEST_F(SnapshotsTest, NoTwoSnapshotsShareATimestamp) {
  const timeval lastMoment{.tv_sec = 59, .tv_usec = 998'500};
  EXPECT_FALSE(publishFolder(lastMoment, "-bb-trace"));
  EXPECT_EQ(published.timestamp, "1970-01-01-00-00-59-998");
  EXPECT_FALSE(publishFile(lastMoment, "-baseband.zip"));
  EXPECT_FALSE(publishFolder(lastMoment, "-bb-trace"));
  EXPECT_EQ(published.timestamp, "1970-01-01-00-01-00-000");
  EXPECT_EQ(published.path, folder + "/log-bb-1970-01-01-00-01-00-000-bb-trace");
  EXPECT_THAT(namesIn(folder), ElementsAre("log-bb-1970-01-01-00-00-59-998-bb-trace",
                                           "log-bb-1970-01-01-00-00-59-999-baseband.zip",
                                           "log-bb-1970-01-01-00-01-00-000-bb-trace"));
  EXPECT_EQ(readFile(published.path + "/kst-info.txt"), "-bb-trace");
  EXPECT_FALSE(fs::exists(staged));
}

TEST_F(SnapshotsTest, NothingIsPublishedWithoutAPlaceForIt) {
  fs::remove(folder);
  EXPECT_THAT(publishFile({}, "-baseband.zip").value_or(""), testing::HasSubstr("rename"));
  EXPECT_TRUE(fs::exists(staged));
  EXPECT_EQ(published.path, "");
}

TEST_F(SnapshotsTest, SparesTheNewestWhateverTheClockSays) {
  for (const char* name : {"log-bb-1", "log-bb-2", "log-bb-3"}) {
    writeFile(folder + "/" + name, "");
  }
  EXPECT_FALSE(removeOldSnapshots(folder, 1, folder + "/log-bb-1"));
  EXPECT_THAT(namesIn(folder), ElementsAre("log-bb-1"));
}

}  // namespace
}  // namespace collection
