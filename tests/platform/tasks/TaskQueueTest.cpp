#include "platform/tasks/TaskQueue.h"

#include <gtest/gtest.h>

#include <array>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/tasks/TaskGroup.h"

namespace {

TEST(TaskQueue, RunsWorkInOrderOneItemAtATime) {
  const TaskQueue queue = TaskQueue::create("a label that is longer than 15 bytes");
  const TaskGroup done = TaskGroup::create();
  std::vector<std::pair<std::size_t, int>> ran;  // unguarded: the queue alone keeps the items apart
  std::array<std::thread, 4> submitters;
  for (std::size_t submitter = 0; submitter < submitters.size(); ++submitter) {
    submitters[submitter] = std::thread([&, submitter, copy = queue] {
      for (int item = 0; item < 500; ++item) {
        copy.submit([&, submitter, item, hold = TaskGroupHold(done)] {
          ran.emplace_back(submitter, item);
        });
      }
    });
  }
  for (std::thread& submitter : submitters) {
    submitter.join();
  }
  done.wait();
  EXPECT_EQ(ran.size(), 2000U);
  std::array<int, 4> next{};
  for (const auto& [submitter, item] : ran) {
    ASSERT_EQ(item, next[submitter]++);
  }
}

TEST(TaskQueue, DestroysEachItemBeforeTheNextRuns) {
  const TaskQueue queue = TaskQueue::create("items");
  auto owned = std::make_shared<std::thread::id>();
  const std::weak_ptr<std::thread::id> watched = owned;
  std::promise<bool> destroyed;
  queue.submit([owned = std::move(owned)] { EXPECT_NE(std::this_thread::get_id(), *owned); });
  queue.submit([&] { destroyed.set_value(watched.expired()); });
  EXPECT_TRUE(destroyed.get_future().get());
}

TEST(TaskQueue, RunsPendingWorkThoughTheLastHandleGoesOnItsOwnThread) {
  std::promise<void> start;
  std::string calls;
  const TaskGroup done = TaskGroup::create();
  {
    const TaskQueue queue = TaskQueue::create("own");
    queue.submit([&, last = queue, hold = TaskGroupHold(done)] {
      start.get_future().wait();
      last.submit([&, hold] { calls += 'b'; });
      calls += 'a';
    });
  }
  start.set_value();
  done.wait();
  EXPECT_EQ(calls, "ab");
}

}  // namespace
