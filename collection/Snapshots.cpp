#include "collection/Snapshots.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <tuple>
#include <vector>

#include "logdump/TimestampSet.h"
#include "support/Descriptor.h"
#include "support/DirectoryStream.h"
#include "support/FileOperations.h"
#include "support/LogDirectory.h"
#include "trace/Trace.h"

namespace collection {
namespace {

std::vector<std::string> namesWithPrefix(const std::string& folder, const std::string& prefix) {
  std::vector<std::string> names;
  kst::support::listDirectory(folder, names);
  std::erase_if(names, [&](const std::string& name) { return !name.starts_with(prefix); });
  return names;
}

timeval oneMillisecondAfter(timeval time) {
  time.tv_usec += 1000;
  if (time.tv_usec >= 1'000'000) {
    time.tv_usec -= 1'000'000;
    ++time.tv_sec;
  }
  return time;
}

/// The timestamp of `start`, or of the first millisecond behind it under which `folder` holds no
/// snapshot of any kind.
std::string freeTimestamp(const std::string& folder, timeval start) {
  const std::vector<std::string> taken = namesWithPrefix(folder, kst::trace::kLogDirPrefix);
  for (timeval time = start;; time = oneMillisecondAfter(time)) {
    TimestampSet timestamps;
    timestamps.set(time, 0);
    std::string text = timestamps.toString(0, kTimestampDate | kTimestampMilliseconds);
    const std::string prefix = kst::trace::kLogDirPrefix + text + "-";
    if (std::none_of(taken.begin(), taken.end(),
                     [&](const std::string& name) { return name.starts_with(prefix); })) {
      return text;
    }
  }
}

/// Moves to a free name, which is `wanted` if possible; empty on failure.
std::string move(const std::string& staged, const std::string& wanted) {
  if (kst::support::isDirectory(staged)) {
    return kst::support::moveToUniquePath(staged, wanted);
  }
  std::string target = kst::support::uniquePath(wanted);
  return kst::support::renamePath(staged, target) ? target : "";
}

Failure syncPath(const std::string& path) {
  const kst::support::Descriptor entry(
      kst::support::openPath(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW, 0));
  if (!entry) {
    return callFailed("open", path);
  }
  if (fsync(entry.get()) != 0) {
    return callFailed("fsync", path);
  }
  return {};
}

}  // namespace

Failure publishSnapshot(const std::string& staged, const std::string& folder, timeval start,
                        const std::string& suffix, Snapshot& published) {
  std::string place = staged;
  Snapshot wanted;
  // Again when another service takes the name in between: it is no longer free then.
  do {
    wanted.timestamp = freeTimestamp(folder, start);
    wanted.path = folder + "/" + kst::trace::kLogDirPrefix + wanted.timestamp + suffix;
    place = move(place, wanted.path);
    if (place.empty()) {
      return callFailed("rename", wanted.path);
    }
  } while (place != wanted.path);

  if (auto failure = syncPath(folder)) {
    kst::support::removeTree(wanted.path);
    return failure;
  }
  published = wanted;
  return {};
}

Failure removeOldSnapshots(const std::string& folder, std::size_t limit,
                           const std::string& newest) {
  struct Entry {
    timespec changed;
    std::string path;
  };
  std::vector<Entry> others;
  for (const std::string& name : namesWithPrefix(folder, kst::trace::kLogDirPrefix)) {
    const std::string path = kst::support::childPath(folder, name);
    struct stat status {};
    if (path != newest && lstat(path.c_str(), &status) == 0) {
      others.push_back({status.st_ctim, path});
    }
  }
  if (others.size() < limit) {
    return {};
  }

  std::sort(others.begin(), others.end(), [](const Entry& left, const Entry& right) {
    return std::tie(left.changed.tv_sec, left.changed.tv_nsec, left.path) <
           std::tie(right.changed.tv_sec, right.changed.tv_nsec, right.path);
  });
  others.resize(others.size() + 1 - limit);
  for (const Entry& old : others) {
    if (!kst::support::removeTree(old.path)) {
      return callFailed("remove", old.path);
    }
  }
  return {};
}

Failure syncTree(const std::string& path) {
  if (kst::support::isDirectory(path)) {
    std::vector<std::string> names;
    kst::support::listDirectory(path, names);
    for (const std::string& name : names) {
      if (kst::support::isDotName(name)) {
        continue;
      }
      if (auto failure = syncTree(kst::support::childPath(path, name))) {
        return failure;
      }
    }
  }
  return syncPath(path);
}

}  // namespace collection
