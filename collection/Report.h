#pragma once

#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "collection/CollectionRequest.h"

namespace collection {

/// What became of an entry of a log folder.
enum class Fate {
  kWhole,       ///< collected up to the size that it had when it was opened
  kCut,         ///< collected in part
  kVanished,    ///< gone before it was opened
  kUnreadable,  ///< should have been collected, but could not be
  kLeftOut,     ///< of a kind that is not collected, or no time or room was left for it
};

struct LogRecord {
  std::string name;        ///< in the snapshot, as in "TelephonyLog/telephony.log"; any bytes
  std::uint64_t size = 0;  ///< bytes, when it was opened
  timespec modified{};
  Fate fate = Fate::kWhole;
  std::optional<std::uint64_t> collected{};  ///< bytes; nothing if it is not in the snapshot
  std::string why{};                         ///< for people, unless whole or vanished
};

/// What a collection has to tell: of every entry that it met, and what else its reader must know.
class Report {
 public:
  void add(LogRecord record);

  /// Adds a sentence to what the caller is answered.
  void remark(const std::string& text);

  [[nodiscard]] std::size_t entryCount() const { return records.size(); }
  [[nodiscard]] std::size_t count(Fate fate) const;

  /// How many files are in the snapshot, this report not counted.
  [[nodiscard]] std::size_t fileCount() const;

  /// The name and the reason of an entry with that fate; empty if there is none.
  [[nodiscard]] std::string firstReason(Fate fate) const;

  /// The text of kst-info.txt. It names all entries in the order of their names.
  [[nodiscard]] std::string info(const CollectionRequest& request, const timeval& start);

  /// How many bytes a record takes in `info`, at most.
  static std::size_t sizeOf(const LogRecord& record);

  /// How many bytes `info` takes, at most.
  [[nodiscard]] std::size_t infoSize() const { return size; }

  /// The remarks, and how many logs are not whole and why the first one is not: printable, on one
  /// line. Empty if all is well.
  [[nodiscard]] std::string summary() const;

 private:
  std::vector<LogRecord> records;
  std::vector<std::string> remarks;
  std::size_t size = 4096;  // of the heading, and of all records and remarks
};

}  // namespace collection
