#include "platform/tasks/TaskGroup.h"

#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <utility>

struct TaskGroup::Counter {
  std::mutex mutex;
  std::condition_variable emptied;
  unsigned long outstanding = 0;
};

TaskGroup TaskGroup::create() {
  TaskGroup group;
  group.counter = std::make_shared<Counter>();
  return group;
}

void TaskGroup::enter() const {
  const std::lock_guard lock(counter->mutex);
  ++counter->outstanding;
}

void TaskGroup::leave() const {
  const std::lock_guard lock(counter->mutex);
  if (counter->outstanding == 0) {
    std::abort();
  }
  if (--counter->outstanding == 0) {
    counter->emptied.notify_all();
  }
}

void TaskGroup::wait() const {
  std::unique_lock lock(counter->mutex);
  counter->emptied.wait(lock, [this] { return counter->outstanding == 0; });
}

bool TaskGroup::wait(std::chrono::nanoseconds limit) const {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point now = Clock::now();
  const Clock::time_point deadline =
      limit < Clock::time_point::max() - now ? now + limit : Clock::time_point::max();
  std::unique_lock lock(counter->mutex);
  return counter->emptied.wait_until(lock, deadline, [this] { return counter->outstanding == 0; });
}

TaskGroupHold::TaskGroupHold(TaskGroup held) : group(std::move(held)) {
  if (group) {
    group.enter();
  }
}

TaskGroupHold::TaskGroupHold(const TaskGroupHold& other) : TaskGroupHold(other.group) {}

TaskGroupHold& TaskGroupHold::operator=(TaskGroupHold other) noexcept {
  std::swap(group, other.group);
  return *this;
}

TaskGroupHold::~TaskGroupHold() {
  if (group) {
    group.leave();
  }
}
