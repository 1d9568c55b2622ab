#include "collection/SnapshotStore.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <optional>
#include <string_view>
#include <utility>

#include "collection/CollectionError.h"
#include "collection/OwnFolder.h"
#include "logdump/TimestampSet.h"
#include "platform/message/CommandResult.h"
#include "support/DirectoryStream.h"
#include "support/FileOperations.h"
#include "support/TreeRemoval.h"
#include "trace/Trace.h"

namespace collection {
namespace {

using kst::support::Descriptor;
using kst::support::DirectoryStream;

// All that the services ever put into the staging folder.
constexpr const char* kStagedFolder = "snapshot";
constexpr const char* kStagedFile = "snapshot.zip";
constexpr const char* kRemoved = "removed";

timeval oneMillisecondAfter(timeval time) {
  time.tv_usec += 1000;
  if (time.tv_usec >= 1'000'000) {
    time.tv_usec -= 1'000'000;
    ++time.tv_sec;
  }
  return time;
}

std::vector<std::string> entriesOf(int directory) {
  std::vector<std::string> found;
  DirectoryStream folder = kst::support::openDirectory(directory, ".");
  while (const dirent* entry = folder.isOpen() ? folder.next() : nullptr) {
    if (!kst::support::isDotName(entry->d_name)) {
      found.emplace_back(entry->d_name);
    }
  }
  return found;
}

/// The bytes that an entry takes on the disk with all below it, to the depth that snapshots have.
std::uint64_t sizeOnDisk(int directory, const std::string& name, int depth = 0) {
  constexpr std::uint64_t kBlock = 512;  // of st_blocks, whatever the file system
  constexpr int kDeepest = 80;
  struct stat status = {};
  if (fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return 0;
  }
  std::uint64_t size = static_cast<std::uint64_t>(status.st_blocks) * kBlock;
  if (!S_ISDIR(status.st_mode) || depth >= kDeepest) {
    return size;
  }
  const Descriptor folder = kst::support::openFolder(directory, name);
  for (const std::string& entry : entriesOf(folder.get())) {
    size += sizeOnDisk(folder.get(), entry, depth + 1);
  }
  return size;
}

/// Renames, but replaces nothing: errno is EEXIST then.
bool renameToFree(int from, const char* oldName, int to, const std::string& newName) {
  if (renameat2(from, oldName, to, newName.c_str(), RENAME_NOREPLACE) == 0) {
    return true;
  }
  if (errno != EINVAL) {
    return false;
  }
  struct stat status = {};
  if (fstatat(to, newName.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
    errno = EEXIST;
    return false;
  }
  // A file system that does not know the flag; nobody else makes names in this folder.
  return renameat(from, oldName, to, newName.c_str()) == 0;
}

}  // namespace

SnapshotStore::SnapshotStore(const std::string& stagingPath, const std::string& snapshotsPath,
                             const Limits& storeLimits, const std::function<bool()>& mayWait)
    : limits(storeLimits),
      snapshotsName(snapshotsPath),
      // Who may open it could lock it for good.
      staging(openOwnFolder(stagingPath, 0700)),
      snapshots(openOwnFolder(snapshotsPath, 0750)) {
  while (flock(staging.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) {
      throwCallFailed("flock", stagingPath);
    }
    if (!mayWait()) {
      throw CollectionError(kst::kResultTimeOver, "another service collects in " + stagingPath);
    }
  }
  clearStaging();
}

SnapshotStore::~SnapshotStore() { clearStaging(); }

/// What cannot be removed is in the way of what needs its name, and told then.
void SnapshotStore::clearStaging() const {
  for (const char* name : {kStagedFolder, kStagedFile, kRemoved}) {
    removeEntry(staging.get(), name);
  }
}

const char* SnapshotStore::stagedName(bool isFile) { return isFile ? kStagedFile : kStagedFolder; }

Failure SnapshotStore::makeRoom(std::uint64_t taken, std::uint64_t more) {
  if (taken + more > limits.maxTotal) {
    return "no room within max_total";
  }
  if (taken + more <= allowance) {
    return {};
  }
  if (auto failure = makeRoomOnDisk(more)) {
    return failure;
  }
  // Others write to the disk too, so this is good for a while only.
  constexpr std::uint64_t kStep = std::uint64_t{16} << 20;
  allowance = taken + std::min(freeRoom(), std::max(more, kStep));
  return {};
}

Failure SnapshotStore::makeRoomOnDisk(std::uint64_t bytes) const {
  if (bytes <= freeRoom()) {
    return {};
  }
  std::vector<SnapshotName> old = names();
  old.resize(old.size() - std::min(old.size(), limits.keepNewest));
  if (bytes <= freeRoom() + sizeOf(old)) {
    for (const SnapshotName& oldest : old) {
      if (auto failure = remove(oldest)) {
        return failure;
      }
      if (bytes <= freeRoom()) {
        return {};
      }
    }
  }
  return "no room on the disk beside keep_free";
}

SnapshotName SnapshotStore::publish(bool isFile, const timeval& start, const std::string& suffix) {
  constexpr int kAttempts = 20;  // more than there are others who make names here
  SnapshotName name = freeName(start, suffix);
  const char* const staged = stagedName(isFile);
  for (int attempt = 1; !renameToFree(staging.get(), staged, snapshots.get(), name.text());
       ++attempt) {
    if (errno != EEXIST || attempt == kAttempts) {
      throwCallFailed("rename", kst::support::childPath(snapshotsName, name.text()));
    }
    name = freeName(start, suffix);
  }
  if (fsync(snapshots.get()) != 0) {
    const int error = errno;
    static_cast<void>(remove(name));
    errno = error;
    throwCallFailed("fsync", snapshotsName);
  }
  return name;
}

Failure SnapshotStore::removeOld(const SnapshotName& newest,
                                 const std::function<bool()>& mayGoOn) const {
  std::vector<SnapshotName> others = names();
  std::vector<std::uint64_t> sizes;
  std::erase(others, newest);
  std::uint64_t total = sizeOf({newest});
  for (const SnapshotName& other : others) {
    sizes.push_back(sizeOf({other}));
    total += sizes.back();
  }
  const std::size_t kept = std::max<std::size_t>(limits.keepNewest, 1) - 1;
  const time_t now = std::time(nullptr);
  for (std::size_t oldest = 0; others.size() - oldest > kept && mayGoOn(); ++oldest) {
    const time_t age = now - others[oldest].time().value_or(now);
    if (age <= limits.maxAge.count() && total <= limits.maxTotal &&
        others.size() - oldest < limits.maxSnapshots) {
      break;
    }
    if (auto failure = remove(others[oldest])) {
      return failure;
    }
    total -= sizes[oldest];
  }
  return {};
}

std::uint64_t SnapshotStore::sizeOf(const std::vector<SnapshotName>& counted) const {
  std::uint64_t size = 0;
  for (const SnapshotName& name : counted) {
    size += sizeOnDisk(snapshots.get(), name.text());
  }
  return size;
}

/// The snapshots, the oldest one first.
std::vector<SnapshotName> SnapshotStore::names() const {
  std::vector<SnapshotName> found;
  for (const std::string& entry : entriesOf(snapshots.get())) {
    struct stat status = {};
    const auto name = SnapshotName::read(entry);
    if (name && fstatat(snapshots.get(), entry.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        status.st_uid == geteuid()) {
      found.push_back(*name);
    }
  }
  // Their texts are in the order of their times.
  std::sort(found.begin(), found.end(), [](const SnapshotName& left, const SnapshotName& right) {
    return left.text() < right.text();
  });
  return found;
}

/// Out of the folder of snapshots first, so that no name there ever holds half of one.
Failure SnapshotStore::remove(const SnapshotName& name) const {
  if (renameat(snapshots.get(), name.text().c_str(), staging.get(), kRemoved) != 0 ||
      !removeEntry(staging.get(), kRemoved)) {
    return callFailed("remove", kst::support::childPath(snapshotsName, name.text()));
  }
  return {};
}

std::uint64_t SnapshotStore::freeRoom() const {
  struct statvfs status = {};
  if (fstatvfs(staging.get(), &status) != 0) {
    throwCallFailed("statvfs", snapshotsName);
  }
  const std::uint64_t total = status.f_blocks * status.f_frsize;
  const std::uint64_t free = status.f_bavail * status.f_frsize;
  const std::uint64_t kept = limits.keepFree.bytes + total / 100 * limits.keepFree.percent;
  return free > kept ? free - kept : 0;
}

SnapshotName SnapshotStore::freeName(const timeval& start, const std::string& suffix) const {
  const std::vector<std::string> taken = entriesOf(snapshots.get());
  for (timeval time = start;; time = oneMillisecondAfter(time)) {
    TimestampSet timestamps;
    timestamps.set(time, 0);
    SnapshotName name{timestamps.toString(0, kTimestampDate | kTimestampMilliseconds), suffix};
    const std::string prefix = kst::trace::kLogDirPrefix + name.timestamp + "-";
    if (std::none_of(taken.begin(), taken.end(),
                     [&](const std::string& entry) { return entry.starts_with(prefix); })) {
      return name;
    }
  }
}

}  // namespace collection
