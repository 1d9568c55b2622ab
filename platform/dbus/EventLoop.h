#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

struct sd_event;
struct sd_event_source;

namespace dbus {

/// The event loop of one thread, on sd-event(3). The thread that calls `run` is the loop's thread;
/// before that, the thread that made the loop counts as such.
class EventLoop {
 public:
  /// Throws std::system_error when the system has no descriptors left.
  EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;
  ~EventLoop();

  /// Serves events on the calling thread, sleeping in between, until `stop`. Once only: a loop that
  /// was stopped does not run again. Throws std::system_error when events cannot be waited for.
  void run();

  /// Makes `run` return once the work posted before has run. Callable from any thread.
  void stop();

  /// Has `work` run on the loop's thread, behind everything posted earlier. Callable from any
  /// thread. What has not run when `run` ends is destroyed unrun, as is what is posted after that.
  void post(std::function<void()> work);

  /// Has `work` run once after `delay`. REQUIRES: the loop's thread.
  void after(std::chrono::milliseconds delay, std::function<void()> work);

  /// Has `work` run whenever the process gets `signal`, which is blocked for that. REQUIRES: called
  /// before the process starts any other thread.
  void onSignal(int signal, std::function<void()> work);

  /// The loop for sd-bus to attach to; owned by this object.
  [[nodiscard]] sd_event* native() const { return event.get(); }

 private:
  struct EventUnref {
    void operator()(sd_event* loop) const;
  };

  using Clock = std::chrono::steady_clock;

  void runPosted();
  void runElapsed();
  void setTimer();

  std::unique_ptr<sd_event, EventUnref> event;
  int wakeUp = -1;                   // eventfd(2), readable while there is posted work
  sd_event_source* timer = nullptr;  // of `event`; set for the first of `delayed`
  std::multimap<Clock::time_point, std::function<void()>> delayed;  // by when it is to run
  std::mutex mutex;
  std::deque<std::function<void()>> posted;  // guarded by `mutex`
  bool ended = false;                        // `run` has; guarded by `mutex`
};

}  // namespace dbus
