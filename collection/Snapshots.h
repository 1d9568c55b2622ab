#pragma once

#include <sys/time.h>

#include <cstddef>
#include <string>

#include "collection/Failure.h"

namespace collection {

struct Snapshot {
  std::string timestamp;
  std::string path;
};

/// Moves the finished file or folder `staged` into `folder`, on the same file system, under the
/// name kLogDirPrefix + timestamp + `suffix`, and makes the move safe against a power failure. The
/// timestamp is that of `start` or the first millisecond behind it under which `folder` holds no
/// snapshot of any kind. On failure nothing stands under a final name.
Failure publishSnapshot(const std::string& staged, const std::string& folder, timeval start,
                        const std::string& suffix, Snapshot& published);

/// Removes the oldest snapshots of `folder` until at most `limit` are left, the one at `newest`
/// included, which is never removed. Entries that are no snapshots do not count.
Failure removeOldSnapshots(const std::string& folder, std::size_t limit, const std::string& newest);

/// Writes `path`, a file or a folder with all that is below it, out to the disk.
Failure syncTree(const std::string& path);

}  // namespace collection
