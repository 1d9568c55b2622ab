#pragma once

#include <gmock/gmock.h>
#include <unzip.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "collection/DevicePaths.h"
#include "collection/Limits.h"
#include "platform/message/CommandResult.h"
#include "simulator/ControlPipe.h"
#include "support/FileOperations.h"
#include "support/TreeRemoval.h"
#include "tests/fakes/SystemCalls.h"
#include "tests/support/FileSystemTest.h"

/// A device without any service or daemon. Local time is UTC; nothing is flushed to the disk, on
/// which any room is enough.
class DeviceTest : public FileSystemTest {
 protected:
  struct SnapshotFile {
    std::string bytes;
    time_t modified = 0;  // 0 in an archive that does not tell it in UTC
    mode_t mode = 0;
    bool isUtf8 = false;  // in an archive, as is:
    unsigned long dosDate = 0;

    bool operator==(const SnapshotFile&) const = default;
  };
  using Snapshot = std::map<std::string, SnapshotFile>;

  DeviceTest() {
    setenv("TZ", "UTC", 1);  // NOLINT(concurrency-mt-unsafe): the test has one thread here
    tzset();
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the same
    setenv("KESTRANE_DEVICE_CONF", (directory / "device.conf").c_str(), 1);
    limits.keepFree = {.bytes = 0, .percent = 0};
  }

  void TearDown() override {
    calls.before = nullptr;
    vexild.reset();
    FileSystemTest::TearDown();
    kst::support::removeTree(directory.path);  // however deep
  }

  /// Writes a file below the folder of all logs.
  std::string makeLog(const std::string& name, const std::string& content = "log") {
    return makeFile(paths.scratch + "/" + name, content);
  }

  /// Makes what the words of `make` tell of below the folder of all logs.
  void makeLogs(const std::string& tree) {
    std::istringstream words(tree);
    for (std::string word; words >> word;) {
      make(paths.scratch + "/" + word);
    }
  }

  static Snapshot snapshotAt(const std::string& path) {
    if (!kst::support::isDirectory(path)) {
      return archiveAt(path);
    }
    Snapshot files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(path)) {
      const struct stat status = statusOf(entry.path());
      const std::string name = entry.path().string().substr(path.size() + 1);
      if (!S_ISDIR(status.st_mode)) {
        files[name] = {readFile(entry.path()), status.st_mtim.tv_sec, status.st_mode};
      }
    }
    return files;
  }

  static Snapshot archiveAt(const std::string& path) {
    Snapshot files;
    void* const archive = unzOpen64(path.c_str());
    EXPECT_TRUE(archive) << path;
    for (int more = archive ? unzGoToFirstFile(archive) : UNZ_EOF; more == UNZ_OK;
         more = unzGoToNextFile(archive)) {
      std::vector<char> name(20'000);
      std::array<unsigned char, 9> extra{};  // the time in UTC, in front of what large files add
      unz_file_info64 info{};
      unzGetCurrentFileInfo64(archive, &info, name.data(), name.size(), extra.data(), extra.size(),
                              nullptr, 0);
      SnapshotFile file{.bytes = std::string(info.uncompressed_size, '\0'),
                        .mode = static_cast<mode_t>(info.external_fa >> 16),
                        .isUtf8 = (info.flag >> 11 & 1) != 0,
                        .dosDate = info.dosDate};
      EXPECT_EQ(unzOpenCurrentFile(archive), UNZ_OK);
      EXPECT_EQ(
          unzReadCurrentFile(archive, file.bytes.data(), static_cast<unsigned>(file.bytes.size())),
          static_cast<int>(file.bytes.size()));
      EXPECT_EQ(unzCloseCurrentFile(archive), UNZ_OK);  // the checksum too
      if (std::equal(extra.begin(), extra.begin() + 5, "UT\5\0\1")) {
        file.modified = extra[5] | extra[6] << 8 | extra[7] << 16 | extra[8] << 24;
      }
      EXPECT_TRUE(files.emplace(name.data(), file).second) << name.data();
    }
    unzClose(archive);
    return files;
  }

  void runVexild() {
    vexild.emplace();
    ASSERT_FALSE(vexild->open(paths.basebandControl));
  }

  static struct stat statusOf(const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status;
  }

  static mode_t modeOf(const std::string& path) { return statusOf(path).st_mode & 07777; }

  static bool isThere(const std::string& path) { return kst::support::pathExists(path); }

  [[nodiscard]] kst::support::Descriptor openLock(const std::string& folder) {
    return kst::support::Descriptor(
        kst::support::openPath(makeLog(folder + ".lock", ""), O_RDWR | O_CLOEXEC, 0));
  }

  const collection::DevicePaths paths{directory.path};
  collection::Limits limits;
  SystemCalls calls;
  std::function<bool()> isCancelled = [] { return false; };
  std::optional<simulator::ControlPipe> vexild;  // runs if it is there
};
