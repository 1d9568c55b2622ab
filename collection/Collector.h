#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "collection/CollectionRequest.h"
#include "collection/DevicePaths.h"
#include "collection/Failure.h"
#include "collection/Limits.h"
#include "platform/message/CommandResult.h"

namespace collection {

struct CollectionOutcome {
  /// On success the text tells what the reader of the snapshot must know, and is empty if there is
  /// no such thing. Printable, on one line.
  CommandResult result;

  // Of the snapshot; empty and 0 if the collection failed.
  std::string timestamp;
  std::string path;
  std::uint64_t bytes = 0;  ///< on the disk
  std::size_t files = 0;    ///< logs, the core dump included
};

/// The outcome of a collection that did not work, or was not begun.
CollectionOutcome failedCollection(std::int32_t status, const std::string& text);

/// Collects the logs of the device into snapshots. A snapshot is one entry of the snapshot folder,
/// a folder or a zip file, made in a staging folder and then moved; it holds kst-info.txt and the
/// logs. Collectors of other processes wait for each other. One collection at a time; any thread.
class Collector {
 public:
  Collector(const DevicePaths& devicePaths, const Limits& collectionLimits);

  /// Makes a snapshot; waits for what that needs. On failure (one of the codes that the services
  /// give, with a text that says what failed where) nothing of it is left. `isCancelled` is asked
  /// some ten times a second at least, flushes to the disk excepted, and breaks the collection off
  /// (kResultStopping).
  [[nodiscard]] CollectionOutcome collect(const CollectionRequest& request,
                                          const std::function<bool()>& isCancelled) const;

  /// Removes what a killed collection has left, unless another process collects just now.
  [[nodiscard]] Failure clearRemains() const;

 private:
  const DevicePaths paths;
  const Limits limits;
};

}  // namespace collection
