#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

/// The work that one thread serves and any thread adds to: what TaskQueue and the main loop have in
/// common.
class WorkList {
 public:
  /// Appends `item`. Callable from any thread.
  void push(std::function<void()> item);

  /// Lets `serve` return once nothing is left. Callable from any thread.
  void close();

  /// Runs the work in order, destroying each item right after its run, and sleeps while there is
  /// none. Returns when the list is closed and empty. REQUIRES: one thread at a time.
  void serve();

 private:
  std::mutex mutex;  // guards all below
  std::condition_variable changed;
  std::deque<std::function<void()>> work;
  bool closed = false;
};
