#include "logdump/TimestampSet.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <tuple>

namespace {

TEST(TimestampSetTest, KeepsTheLastTimeOfEachSlot) {
  const auto before = std::chrono::system_clock::now().time_since_epoch();
  TimestampSet timestamps;
  timeval time;
  ASSERT_TRUE(timestamps.get(time, 0));
  const auto after = std::chrono::system_clock::now().time_since_epoch();
  const std::chrono::microseconds stored(time.tv_sec * 1'000'000 + time.tv_usec);
  EXPECT_TRUE(std::chrono::floor<std::chrono::microseconds>(before) <= stored && stored <= after);

  timestamps.set({1, 2}, -7);
  timestamps.set({3, 4}, -7);
  EXPECT_TRUE(timestamps.get(time, -7) && time.tv_sec == 3);
  EXPECT_FALSE(timestamps.get(time, 1) || timerisset(&time));
}

TEST(TimestampSetTest, RendersASlotByItsFlags) {
  setenv("TZ", "EAST-1", 1);  // NOLINT(concurrency-mt-unsafe): no other thread runs
  tzset();
  constexpr timeval kMoment{1794832508, 123456};  // 16 November 2026, 12:35:08 UTC
  constexpr timeval kEarly{1794832508, 7999};
  constexpr timeval kBeyondTheCalendar{std::numeric_limits<time_t>::max(), 5000};
  const std::tuple<timeval, int, const char*> cases[] = {
      {kMoment, 0x02 | 0x20, "1794832508"},
      {kMoment, kTimestampDate | kTimestampMicroseconds, "2026-11-16-13-35-08"},
      {kEarly, kTimestampDate | kTimestampMilliseconds, "2026-11-16-13-35-08-007"},
      {kMoment, kTimestampDateZone | kTimestampDate | kTimestampMilliseconds,
       "2026.11.16_13-35-08+0100-123"},
      {kEarly, kTimestampMilliseconds, "1794832508.007"},
      {kEarly, kTimestampMilliseconds | kTimestampMicroseconds, "1794832508.007999"},
      {kBeyondTheCalendar, kTimestampDate | kTimestampMilliseconds, "-005"},
  };
  TimestampSet timestamps;
  for (const auto& [time, flags, text] : cases) {
    timestamps.set(time, 3);
    EXPECT_EQ(timestamps.toString(3, flags), text) << "flags " << flags;
  }
  EXPECT_EQ(timestamps.toString(99, kTimestampDate), "1970-01-01-01-00-00");
}

}  // namespace
