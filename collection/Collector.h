#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "collection/CollectionRequest.h"
#include "collection/DevicePaths.h"
#include "collection/Failure.h"
#include "platform/message/CommandResult.h"

namespace collection {

/// How much the folder of snapshots may hold beside the latest one.
struct SnapshotLimits {
  std::size_t number = 32;             ///< the latest one included
  std::uint64_t maximumAge = 604'800;  ///< seconds: a week
};

struct CollectionOutcome {
  CommandResult result;

  /// Names the snapshot; empty if the collection failed.
  std::string timestamp;
};

/// The outcome of a collection that did not work.
CollectionOutcome failedCollection(const std::string& text);

/// Collects the logs of the device into snapshots. A snapshot is one entry of the snapshot folder,
/// a folder or a zip file, made in a staging folder and then moved; it holds kst-info.txt and the
/// logs. One collection at a time; any thread.
class Collector {
 public:
  /// `stagingFolder` is this collector's alone, on the file system of the snapshots.
  Collector(const DevicePaths& paths, const std::string& stagingFolder, SnapshotLimits limits);

  /// Makes a snapshot; waits for what that needs. On failure (kResultCollectionFailed, with a text
  /// that says what failed where) nothing of it is left.
  [[nodiscard]] CollectionOutcome collect(const CollectionRequest& request) const;

  /// Removes what a killed collection has left in the staging folder.
  [[nodiscard]] Failure clearStaging() const;

 private:
  DevicePaths paths;
  std::string staging;
  SnapshotLimits limits;
};

}  // namespace collection
