#include "platform/dbus/EventLoop.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <system_error>
#include <utility>

#include "platform/dbus/SdBus.h"

namespace dbus {

namespace {

using Work = std::function<void()>;

/// How much later than asked for a timer may fire, in microseconds.
constexpr std::uint64_t kAccuracy = 1000;

/// Leaves an event source to its loop.
void leaveToLoop(sd_event_source* source) {
  sd_event_source_set_floating(source, 1);
  sd_event_source_unref(source);
}

}  // namespace

void EventLoop::EventUnref::operator()(sd_event* loop) const { sd_event_unref(loop); }

EventLoop::EventLoop() {
  sd_event* loop = nullptr;
  throwIfFailed(sd_event_new(&loop), "sd_event_new");
  event.reset(loop);
  const auto elapsed = [](sd_event_source*, std::uint64_t, void* self) {
    static_cast<EventLoop*>(self)->runElapsed();
    return 0;
  };
  throwIfFailed(
      sd_event_add_time(loop, &timer, CLOCK_MONOTONIC, UINT64_MAX, kAccuracy, elapsed, this),
      "sd_event_add_time");
  leaveToLoop(timer);
  wakeUp = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  throwIfFailed(wakeUp < 0 ? -errno : 0, "eventfd");
  const auto served = [](sd_event_source*, int, std::uint32_t, void* self) {
    static_cast<EventLoop*>(self)->runPosted();
    return 0;
  };
  const int r = sd_event_add_io(loop, nullptr, wakeUp, EPOLLIN, served, this);
  if (r < 0) {
    close(wakeUp);
  }
  throwIfFailed(r, "sd_event_add_io");
}

EventLoop::~EventLoop() {
  event.reset();
  close(wakeUp);
}

void EventLoop::run() {
  const int r = sd_event_loop(event.get());
  std::deque<Work> unrun;
  {
    const std::lock_guard lock(mutex);
    ended = true;
    unrun.swap(posted);
  }
  throwIfFailed(r, "sd_event_loop");
}

void EventLoop::stop() {
  post([this] { sd_event_exit(event.get(), 0); });
}

void EventLoop::post(Work work) {
  const std::lock_guard lock(mutex);
  if (!ended) {
    posted.push_back(std::move(work));
    eventfd_write(wakeUp, 1);
  }
}

void EventLoop::runPosted() {
  eventfd_t count = 0;
  eventfd_read(wakeUp, &count);
  std::deque<Work> batch;
  {
    const std::lock_guard lock(mutex);
    batch.swap(posted);
  }
  for (; !batch.empty(); batch.pop_front()) {
    batch.front()();
  }
}

void EventLoop::after(std::chrono::milliseconds delay, Work work) {
  delayed.emplace(Clock::now() + delay, std::move(work));
  setTimer();
}

void EventLoop::setTimer() {
  const auto left =
      std::chrono::ceil<std::chrono::microseconds>(delayed.begin()->first - Clock::now());
  sd_event_source_set_time_relative(
      timer, static_cast<std::uint64_t>(std::max<std::int64_t>(left.count(), 0)));
  sd_event_source_set_enabled(timer, SD_EVENT_ONESHOT);
}

void EventLoop::runElapsed() {
  const auto elapsed = delayed.upper_bound(Clock::now());
  std::multimap<Clock::time_point, Work> batch;
  while (delayed.begin() != elapsed) {
    batch.insert(delayed.extract(delayed.begin()));
  }
  for (const auto& [time, work] : batch) {
    work();
  }
  if (!delayed.empty()) {
    setTimer();
  }
}

void EventLoop::onSignal(int signal, Work work) {
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, signal);
  pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
  const auto arrived = [](sd_event_source*, const signalfd_siginfo*, void* data) {
    (*static_cast<Work*>(data))();
    return 0;
  };
  sd_event_source* source = nullptr;
  throwIfFailed(sd_event_add_signal(event.get(), &source, signal, arrived, nullptr),
                "sd_event_add_signal");
  sd_event_source_set_userdata(source, new Work(std::move(work)));
  sd_event_source_set_destroy_callback(source, [](void* data) { delete static_cast<Work*>(data); });
  leaveToLoop(source);
}

}  // namespace dbus
