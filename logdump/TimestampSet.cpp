#include "logdump/TimestampSet.h"

#include <array>
#include <ctime>

namespace {

std::string padded(long value, size_t digits) {
  const std::string text = std::to_string(value);
  return text.size() < digits ? std::string(digits - text.size(), '0') + text : text;
}

std::string milliseconds(const timeval& time) { return padded(time.tv_usec / 1000, 3); }

std::string localDate(const timeval& time, const char* layout) {
  std::array<char, 64> text{};
  tm local{};
  if (localtime_r(&time.tv_sec, &local) != nullptr) {
    strftime(text.data(), text.size(), layout, &local);
  }
  return text.data();
}

}  // namespace

TimestampSet::TimestampSet() { now(times[0]); }

void TimestampSet::set(const timeval& time, int32_t slot) { times[slot] = time; }

bool TimestampSet::get(timeval& time, int32_t slot) const {
  const auto found = times.find(slot);
  time = found != times.end() ? found->second : timeval{};
  return found != times.end();
}

void TimestampSet::now(timeval& time) { gettimeofday(&time, nullptr); }

std::string TimestampSet::toString(int32_t slot, int flags) const {
  timeval time;
  get(time, slot);
  if ((flags & (kTimestampDate | kTimestampDateZone)) != 0) {
    const bool withZone = (flags & kTimestampDateZone) != 0;
    const std::string date =
        localDate(time, withZone ? "%Y.%m.%d_%H-%M-%S%z" : "%Y-%m-%d-%H-%M-%S");
    return (flags & kTimestampMilliseconds) != 0 ? date + '-' + milliseconds(time) : date;
  }
  const std::string seconds = std::to_string(time.tv_sec);
  if ((flags & kTimestampMicroseconds) != 0) {
    return seconds + '.' + padded(time.tv_usec, 6);
  }
  return (flags & kTimestampMilliseconds) != 0 ? seconds + '.' + milliseconds(time) : seconds;
}
