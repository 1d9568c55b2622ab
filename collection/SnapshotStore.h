#pragma once

#include <sys/time.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "collection/Failure.h"
#include "collection/Limits.h"
#include "collection/SnapshotName.h"
#include "support/Descriptor.h"

namespace collection {

/// The staging folder, in which one collection at a time makes its snapshot, and the folder of
/// finished snapshots on the same file system. Operations throw CollectionError unless they say
/// otherwise.
class SnapshotStore {
 public:
  /// Opens both folders and waits until no other process has this staging folder; `mayWait` is
  /// asked again and again, and sleeps. Throws kResultTimeOver when it gives false. What an earlier
  /// collection has left is removed.
  SnapshotStore(const std::string& stagingPath, const std::string& snapshotsPath,
                const Limits& storeLimits, const std::function<bool()>& mayWait);
  SnapshotStore(const SnapshotStore&) = delete;
  SnapshotStore& operator=(const SnapshotStore&) = delete;

  /// Removes what was staged and not published.
  ~SnapshotStore();

  /// For a new snapshot: a folder or a file that is still to be made.
  [[nodiscard]] int stagingFolder() const { return staging.get(); }
  static const char* stagedName(bool isFile);

  /// Sees that the new snapshot, which takes so many bytes of the disk so far, may take `more`:
  /// removes old snapshots for that where it must and where it helps, the oldest ones first, but
  /// not the newest few. What lacks if it may not.
  Failure makeRoom(std::uint64_t taken, std::uint64_t more);

  /// Moves the staged snapshot to its final name, which nothing has yet, and makes the move safe
  /// against a power failure. The name's timestamp is that of `start`, or of the first millisecond
  /// after it for which there is no snapshot of any kind.
  SnapshotName publish(bool isFile, const timeval& start, const std::string& suffix);

  /// Removes old snapshots, the oldest ones first, until the others are within the limits; never
  /// `newest`, nor the newest few. `mayGoOn` is asked before each. Does not throw.
  [[nodiscard]] Failure removeOld(const SnapshotName& newest,
                                  const std::function<bool()>& mayGoOn) const;

  /// The bytes that snapshots take on the disk.
  [[nodiscard]] std::uint64_t sizeOf(const std::vector<SnapshotName>& counted) const;

 private:
  void clearStaging() const;
  [[nodiscard]] Failure makeRoomOnDisk(std::uint64_t bytes) const;
  [[nodiscard]] std::vector<SnapshotName> names() const;
  [[nodiscard]] Failure remove(const SnapshotName& name) const;
  [[nodiscard]] std::uint64_t freeRoom() const;
  [[nodiscard]] SnapshotName freeName(const timeval& start, const std::string& suffix) const;

  const Limits& limits;
  const std::string snapshotsName;
  kst::support::Descriptor staging;
  kst::support::Descriptor snapshots;
  std::uint64_t allowance = 0;  // up to which the new snapshot has room, as far as was looked
};

}  // namespace collection
