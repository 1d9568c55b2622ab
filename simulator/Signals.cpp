#include "simulator/Signals.h"

#include <csignal>
#include <ctime>
#include <initializer_list>

namespace simulator {
namespace {

sigset_t setOf(std::initializer_list<int> signals) {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : signals) {
    sigaddset(&set, signal);
  }
  return set;
}

constexpr std::initializer_list<int> kHeldSignals = {SIGCHLD, SIGHUP, SIGINT, SIGQUIT, SIGTERM};

timespec toTimespec(std::chrono::milliseconds time) {
  timespec spec{};
  spec.tv_sec = static_cast<time_t>(time.count() / 1000);
  spec.tv_nsec = static_cast<long>(time.count() % 1000 * 1'000'000);
  return spec;
}

}  // namespace

void holdSignals() {
  // A signal that is ignored would be lost, also while it is blocked.
  for (const int signal : kHeldSignals) {
    std::signal(signal, SIG_DFL);
  }
  const sigset_t held = setOf(kHeldSignals);
  pthread_sigmask(SIG_BLOCK, &held, nullptr);
}

std::optional<int> nextSignal(std::optional<std::chrono::milliseconds> limit) {
  const sigset_t held = setOf(kHeldSignals);
  int signal = 0;
  if (limit) {
    const timespec time = toTimespec(*limit);
    signal = sigtimedwait(&held, nullptr, &time);
  } else {
    signal = sigwaitinfo(&held, nullptr);
  }
  return signal > 0 ? std::optional(signal) : std::nullopt;
}

void awaitInterruption(std::chrono::milliseconds limit) {
  const auto signal = nextSignal(limit);
  if (signal && *signal != SIGCHLD) {
    throw Interrupted{*signal};
  }
}

void awaitChildSignal(std::chrono::milliseconds limit) {
  const sigset_t children = setOf({SIGCHLD});
  const timespec time = toTimespec(limit);
  sigtimedwait(&children, nullptr, &time);
}

void resetSignals() {
  for (int signal = 1; signal <= SIGRTMAX; ++signal) {
    std::signal(signal, SIG_DFL);
  }
  const sigset_t none = setOf({});
  pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

}  // namespace simulator
