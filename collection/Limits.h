#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>

namespace collection {

/// Room that is to stay free on a file system.
struct KeptRoom {
  std::uint64_t bytes = 0;
  unsigned percent = 10;  ///< of the file system, on top of `bytes`
};

/// What bounds collections. Both services read them from the same file.
struct Limits {
  std::uint64_t maxTotal = std::uint64_t{2} << 30;     ///< bytes on the disk, of all snapshots
  KeptRoom keepFree;                                   ///< on the file system of the snapshots
  std::size_t maxSnapshots = 32;                       ///< the newest one included
  std::chrono::seconds maxAge = std::chrono::days(7);  ///< of a snapshot, by the time in its name
  std::size_t keepNewest = 3;                          ///< snapshots that no limit removes
  std::optional<std::uint64_t>
      maxSource;  ///< bytes taken of one log, not of the core dump; nothing: all
  std::chrono::seconds collectionTime = std::chrono::minutes(5);
  std::chrono::seconds lockTime{1};       ///< for a daemon's lock on its logs
  std::chrono::seconds coreDumpTime{60};  ///< until vexild has written a core dump
  std::size_t maxWaiting = 16;            ///< requests that wait for a collection to end
};

/// The limits of the file that the environment variable KESTRANE_COLLECTION_CONF names, or else of
/// /etc/kestrane/collection.conf. A line that cannot be read is one line on `problems`, as is a
/// file that is there and cannot be read, and leaves the default; a key given twice has its last
/// readable value.
Limits readLimits(std::ostream& problems);

}  // namespace collection
