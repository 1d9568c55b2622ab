#include "logdump/TimestampSet.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <limits>
#include <tuple>

namespace {

TEST(TimestampSetTest, KeepsTheLastTimeOfEachSlot) {
  TimestampSet timestamps;
  timeval time;
  EXPECT_TRUE(timestamps.get(time, 0) && std::abs(time.tv_sec - std::time(nullptr)) < 5);
  timestamps.set({1, 2}, -7);
  timestamps.set({3, 4}, -7);
  EXPECT_TRUE(timestamps.get(time, -7) && time.tv_sec == 3 && time.tv_usec == 4);
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
      {kBeyondTheCalendar, kTimestampDate | kTimestampMilliseconds,
       sizeof(time_t) > 4 ? "-005" : "2038-01-19-04-14-07-005"}};
  TimestampSet timestamps;
  for (const auto& [time, flags, text] : cases) {
    timestamps.set(time, 3);
    EXPECT_EQ(timestamps.toString(3, flags), text) << "flags " << flags;
  }
  EXPECT_EQ(timestamps.toString(99, kTimestampDate), "1970-01-01-01-00-00");
}

}  // namespace
