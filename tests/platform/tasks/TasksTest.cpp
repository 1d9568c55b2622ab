#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <future>
#include <thread>
#include <vector>

#include "platform/tasks/MainLoop.h"
#include "platform/tasks/TaskGroup.h"
#include "platform/tasks/TaskQueue.h"

namespace {

using namespace std::chrono_literals;

TEST(TaskGroup, WaitsUntilAllHaveLeftOrTheDeadlineHasPassed) {
  const TaskGroup group = TaskGroup::create();
  group.wait();
  group.enter();
  group.enter();
  group.leave();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(group.wait(20ms));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms);
  EXPECT_FALSE(group.wait(std::chrono::nanoseconds::min()));

  auto unlimited = std::async(std::launch::async, [&] { group.wait(); });
  auto limited =
      std::async(std::launch::async, [&] { return group.wait(std::chrono::nanoseconds::max()); });
  EXPECT_EQ(limited.wait_for(20ms), std::future_status::timeout);
  EXPECT_EQ(unlimited.wait_for(0ms), std::future_status::timeout);
  group.leave();
  unlimited.get();
  EXPECT_TRUE(limited.get());
}

TEST(TaskGroup, SurplusLeaveAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(TaskGroup::create().leave(), testing::KilledBySignal(SIGABRT), "");
}

TEST(TaskGroupHold, EveryCopyIsAHoldOfItsOwn) {
  const TaskGroup one = TaskGroup::create();
  const TaskGroup other = TaskGroup::create();
  std::optional<TaskGroupHold> first(one);
  TaskGroupHold target(*first);
  first.emplace(other);
  EXPECT_FALSE(one.wait(0ns));
  target = *first;
  EXPECT_TRUE(one.wait(0ns));
  first.emplace(std::move(target));
  EXPECT_FALSE(other.wait(0ns));
  first.emplace(TaskGroup());
  EXPECT_TRUE(other.wait(0ns));
}

TEST(TaskQueue, RunsWorkInOrderOffTheSubmittingThread) {
  const TaskQueue queue = TaskQueue::create("a label that is longer than 15 bytes");
  const TaskGroup done = TaskGroup::create();
  std::vector<int> ran;  // unguarded: the queue alone keeps the items apart
  for (int item = 0; item < 2000; ++item) {
    queue.submit([&, item, submitter = std::this_thread::get_id(), hold = TaskGroupHold(done)] {
      EXPECT_NE(std::this_thread::get_id(), submitter);
      ran.push_back(item);
    });
  }
  done.wait();
  EXPECT_EQ(ran.size(), 2000U);
  EXPECT_TRUE(std::is_sorted(ran.begin(), ran.end()));
}

/// Fulfils its promise when the thread that it belongs to ends.
struct ThreadEnd {
  ~ThreadEnd() { promise->set_value(); }
  std::shared_ptr<std::promise<void>> promise;
};

TEST(TaskQueue, RunsPendingWorkThoughTheLastHandleGoesOnItsOwnThread) {
  std::promise<void> start;
  std::promise<bool> isDestroyed;
  const auto ended = std::make_shared<std::promise<void>>();
  {
    const TaskQueue queue = TaskQueue::create("own");
    queue.submit([&, last = queue, owned = std::make_shared<int>()] {
      static thread_local const ThreadEnd atEnd{ended};
      start.get_future().wait();
      last.submit([&, watched = std::weak_ptr<int>(owned)] {
        isDestroyed.set_value(watched.expired());  // an item goes before the next runs
      });
    });
  }
  start.set_value();
  EXPECT_TRUE(isDestroyed.get_future().get());
  EXPECT_EQ(ended->get_future().wait_for(30s), std::future_status::ready);
}

TEST(MainLoop, ServesWhatWasPostedBeforeItsEnd) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto serve = [] {
    std::thread::id caller;
    std::thread other([&] {
      postToMainLoop([&] { caller = std::this_thread::get_id(); });
      stopMainLoop();
    });
    runMainLoop();
    other.join();
    // NOLINTNEXTLINE(concurrency-mt-unsafe)
    exit(caller == std::this_thread::get_id() ? EXIT_SUCCESS : EXIT_FAILURE);
  };
  // In a process of its own: the loop of a process ends for good.
  EXPECT_EXIT(serve(), testing::ExitedWithCode(EXIT_SUCCESS), "");
}

}  // namespace
