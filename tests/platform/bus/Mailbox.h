#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

/// Values that a thread hands to the test, one at a time.
template <typename T>
class Mailbox {
 public:
  void put(T value) {
    const std::lock_guard lock(mutex);
    values.push_back(std::move(value));
    arrived.notify_one();
  }

  /// The next value; nothing when none comes. The limit is for failing tests only.
  std::optional<T> next(std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    std::unique_lock lock(mutex);
    if (!arrived.wait_for(lock, limit, [this] { return !values.empty(); })) {
      return std::nullopt;
    }
    T value = std::move(values.front());
    values.pop_front();
    return value;
  }

 private:
  std::mutex mutex;
  std::condition_variable arrived;
  std::deque<T> values;
};
