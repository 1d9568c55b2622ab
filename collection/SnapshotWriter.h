#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "collection/Report.h"

namespace collection {

/// Writes a snapshot in its final form. Everything is readable for the user and the group of the
/// service alone, whatever the source's mode, and keeps the source's modification time. All
/// operations throw CollectionError, after which the snapshot is not worth keeping.
class SnapshotWriter {
 public:
  SnapshotWriter() = default;
  SnapshotWriter(const SnapshotWriter&) = delete;
  SnapshotWriter& operator=(const SnapshotWriter&) = delete;
  virtual ~SnapshotWriter() = default;

  /// Begins a file of the record's name, time and expected size. What `write` adds until `end` is
  /// its content, which may turn out shorter, but no longer. False, and nothing begun, if a
  /// folder cannot have the name, or has it already; an archive takes any.
  [[nodiscard]] virtual bool begin(const LogRecord& record) = 0;
  virtual void write(std::string_view bytes) = 0;
  virtual void end() = 0;

  /// Completes the snapshot and writes it out to the disk.
  virtual void finish() = 0;

  /// How much room on the disk the snapshot takes so far, in bytes, at most.
  [[nodiscard]] virtual std::uint64_t room() const = 0;
};

/// A writer for the new entry `name` of the open directory: a folder.
std::unique_ptr<SnapshotWriter> makeFolderWriter(int directory, const std::string& name);

/// The same for a zip archive. Names that are not UTF-8 stand in it byte for byte.
std::unique_ptr<SnapshotWriter> makeZipWriter(int directory, const std::string& name);

}  // namespace collection
