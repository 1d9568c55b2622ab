#include "platform/tasks/TaskQueue.h"

#include <pthread.h>

#include <thread>
#include <utility>

#include "platform/tasks/WorkList.h"

/// What all handles of a queue share. The thread owns the work list too, so the list outlives the
/// last handle.
struct TaskQueue::Handle {
  std::shared_ptr<WorkList> work = std::make_shared<WorkList>();

  Handle() = default;
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  ~Handle() { work->close(); }
};

TaskQueue TaskQueue::create(const std::string& label) {
  TaskQueue queue;
  queue.handle = std::make_shared<Handle>();
  std::thread thread([work = queue.handle->work] { work->serve(); });
  pthread_setname_np(thread.native_handle(), label.substr(0, 15).c_str());
  thread.detach();
  return queue;
}

void TaskQueue::submit(std::function<void()> work) const { handle->work->push(std::move(work)); }
