#pragma once

#include <sys/time.h>

#include <cstdint>
#include <map>
#include <string>

/// Format flags of `TimestampSet::toString`, to be combined with "|". Other bits have no effect.
inline constexpr int kTimestampDate = 0x01;          ///< local date, "2026-11-16-13-35-08"
inline constexpr int kTimestampMicroseconds = 0x04;  ///< numeric form only: ".123456"
inline constexpr int kTimestampMilliseconds = 0x08;  ///< "-123" behind a date, else ".123"
inline constexpr int kTimestampDateZone = 0x10;      ///< local date, "2026.11.16_13-35-08+0100"

/// Moments, to the microsecond, under small slot numbers, and their text for file names. A plain
/// value: an instance belongs to one thread at a time.
class TimestampSet {
 public:
  /// Slot 0 holds the time of construction.
  TimestampSet();

  /// Stores `time` under `slot` in place of an earlier one.
  void set(const timeval& time, int32_t slot);

  /// Copies the time of `slot` into `time`. False, and `time` zero, if nothing is stored there.
  bool get(timeval& time, int32_t slot) const;

  /// Fills `time` from the system clock, as `gettimeofday` does.
  static void now(timeval& time);

  /// The time of `slot` as text; a missing slot counts as the epoch. A date flag gives local time,
  /// `kTimestampDateZone` before `kTimestampDate`; without one the text is the seconds since the
  /// epoch. `kTimestampMicroseconds` goes before `kTimestampMilliseconds`; fractions are cut off,
  /// not rounded, and always have all their digits. A year that `localtime_r` cannot express leaves
  /// out the date.
  [[nodiscard]] std::string toString(int32_t slot, int flags) const;

 private:
  std::map<int32_t, timeval> times;
};
