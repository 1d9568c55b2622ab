#include "platform/tasks/TaskQueue.h"

#include <pthread.h>

#include <system_error>
#include <thread>
#include <utility>

#include "platform/tasks/MainLoop.h"
#include "platform/tasks/WorkList.h"

/// What all handles of a queue share. The thread owns the work list too, so the list outlives the
/// last handle.
struct TaskQueue::Handle {
  std::shared_ptr<WorkList> work;  // empty where there is no thread

  Handle() = default;
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  ~Handle() {
    if (work) {
      work->close();
    }
  }
};

TaskQueue TaskQueue::create(const std::string& label) {
  TaskQueue queue;
  queue.handle = std::make_shared<Handle>();
  const auto work = std::make_shared<WorkList>();
  try {
    std::thread thread([work] { work->serve(); });
    pthread_setname_np(thread.native_handle(), label.substr(0, 15).c_str());
    thread.detach();
    queue.handle->work = work;
  } catch (const std::system_error&) {
    // The main loop does it.
  }
  return queue;
}

void TaskQueue::submit(std::function<void()> work) const {
  if (handle->work) {
    handle->work->push(std::move(work));
  } else {
    postToMainLoop(std::move(work));
  }
}
