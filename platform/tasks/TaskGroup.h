#pragma once

#include <chrono>
#include <memory>

/// A counter of outstanding work. The object is a handle: copies share one counter, and a
/// default-constructed handle is empty. Everything but the assignment of a handle may be called
/// from any thread.
class TaskGroup {
 public:
  /// An empty handle.
  TaskGroup() = default;

  /// A new counter, at zero.
  static TaskGroup create();

  /// Adds one piece of outstanding work. REQUIRES: the handle is not empty; so for every operation
  /// below.
  void enter() const;

  /// Takes one off again. A leave without an enter ends the process by an abort.
  void leave() const;

  /// Blocks until the count is zero, however long that takes.
  void wait() const;

  /// Blocks until the count is zero or `limit` has passed; true when it is zero.
  [[nodiscard]] bool wait(std::chrono::nanoseconds limit) const;

  explicit operator bool() const { return counter != nullptr; }

 private:
  struct Counter;

  std::shared_ptr<Counter> counter;
};

/// A piece of outstanding work of a group, as a value: every copy is a piece of its own, which ends
/// with that copy. A callback that captures a hold keeps the group from emptying for as long as any
/// copy of the callback exists. A hold on an empty handle holds nothing.
class TaskGroupHold {
 public:
  explicit TaskGroupHold(TaskGroup held);
  TaskGroupHold(const TaskGroupHold& other);
  TaskGroupHold(TaskGroupHold&& other) noexcept = default;
  TaskGroupHold& operator=(TaskGroupHold other) noexcept;
  ~TaskGroupHold();

 private:
  TaskGroup group;
};
