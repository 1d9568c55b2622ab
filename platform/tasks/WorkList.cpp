#include "platform/tasks/WorkList.h"

#include <utility>

void WorkList::push(std::function<void()> item) {
  const std::lock_guard lock(mutex);
  work.push_back(std::move(item));
  changed.notify_one();
}

void WorkList::close() {
  const std::lock_guard lock(mutex);
  closed = true;
  changed.notify_one();
}

void WorkList::serve() {
  std::unique_lock lock(mutex);
  for (;;) {
    changed.wait(lock, [this] { return closed || !work.empty(); });
    if (work.empty()) {
      return;
    }
    {
      const std::function<void()> next = std::move(work.front());
      work.pop_front();
      lock.unlock();
      next();
    }
    lock.lock();
  }
}
