#pragma once

#include <ctime>
#include <optional>
#include <string>

namespace collection {

/// A snapshot's name: kLogDirPrefix, its local time to the millisecond, and a suffix that tells
/// its kind. Nothing else in the folder of snapshots is ever counted or removed.
struct SnapshotName {
  std::string timestamp;  ///< "2026-11-16-13-35-08-123"
  std::string suffix;     ///< "-telephony.zip"

  /// The parts of a name; nothing if it is none of a snapshot.
  static std::optional<SnapshotName> read(const std::string& name);

  [[nodiscard]] std::string text() const;

  /// The time of the timestamp, to the second.
  [[nodiscard]] std::optional<time_t> time() const;

  friend bool operator==(const SnapshotName&, const SnapshotName&) = default;
};

}  // namespace collection
