#include "platform/tasks/TaskGroup.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <future>
#include <optional>
#include <utility>

namespace {

using namespace std::chrono_literals;

bool isEmpty(const TaskGroup& group) { return group.wait(0ns); }

TEST(TaskGroup, WaitsUntilAllHaveLeftOrTheDeadlineHasPassed) {
  const TaskGroup group = TaskGroup::create();
  const TaskGroup copy = group;
  group.wait();
  group.enter();
  copy.enter();
  group.leave();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(copy.wait(20ms));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms);
  EXPECT_FALSE(group.wait(std::chrono::nanoseconds::min()));

  auto unlimited = std::async(std::launch::async, [&] { group.wait(); });
  auto limited =
      std::async(std::launch::async, [&] { return group.wait(std::chrono::nanoseconds::max()); });
  EXPECT_EQ(limited.wait_for(20ms), std::future_status::timeout);
  EXPECT_EQ(unlimited.wait_for(0ms), std::future_status::timeout);
  copy.leave();
  unlimited.get();
  EXPECT_TRUE(limited.get());
}

TEST(TaskGroup, SurplusLeaveAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(TaskGroup::create().leave(), testing::KilledBySignal(SIGABRT), "");
}

TEST(TaskGroupHold, EveryCopyIsAHoldOfItsOwn) {
  const TaskGroup group = TaskGroup::create();
  std::optional<TaskGroupHold> first(group);
  std::optional<TaskGroupHold> copy(first);
  first.reset();
  EXPECT_FALSE(isEmpty(group));
  std::optional<TaskGroupHold> moved(std::move(*copy));
  copy.reset();
  EXPECT_FALSE(isEmpty(group));
  moved.reset();
  EXPECT_TRUE(isEmpty(group));
}

TEST(TaskGroupHold, AssignmentLeavesOneGroupAndEntersTheOther) {
  const TaskGroup one = TaskGroup::create();
  const TaskGroup other = TaskGroup::create();
  {
    TaskGroupHold target{one};
    const TaskGroupHold source{other};
    target = source;
    EXPECT_TRUE(isEmpty(one));
    const TaskGroupHold& same = target;
    target = same;
    target = TaskGroupHold(one);
    EXPECT_FALSE(isEmpty(one));
    EXPECT_FALSE(isEmpty(other));
    target = TaskGroupHold(TaskGroup());
    EXPECT_TRUE(isEmpty(one));
    const TaskGroupHold copyOfNothing(target);
  }
  EXPECT_TRUE(isEmpty(other));
}

}  // namespace
