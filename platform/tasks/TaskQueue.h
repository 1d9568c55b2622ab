#pragma once

#include <functional>
#include <memory>
#include <string>

/// A serial work queue with a thread of its own. The object is a handle: copies share one queue,
/// and a default-constructed handle is empty. When the last handle goes, the work already submitted
/// still runs, and then the thread ends; nobody waits for it, so that handle may go anywhere, on
/// the queue's own thread too.
class TaskQueue {
 public:
  /// An empty handle.
  TaskQueue() = default;

  /// Starts a queue. `label` names its thread for debuggers (the system keeps the first 15 bytes of
  /// it). Where the system has no thread left, the main loop does the queue's work.
  static TaskQueue create(const std::string& label);

  /// Has `work` run, and destroyed right after, on the queue's thread, behind everything submitted
  /// earlier. Never blocks; callable from any thread. REQUIRES: the handle is not empty, and `work`
  /// does not throw.
  void submit(std::function<void()> work) const;

  explicit operator bool() const { return handle != nullptr; }

 private:
  struct Handle;

  std::shared_ptr<Handle> handle;
};
