#pragma once

#include <chrono>
#include <optional>

namespace simulator {

/// A signal that tells the simulator to end.
struct Interrupted {
  int signal;
};

/// From now on the signals that the simulator handles (SIGCHLD, SIGHUP, SIGINT, SIGQUIT, SIGTERM)
/// wait until they are asked for. REQUIRES: the process has one thread so far.
void holdSignals();

/// Waits for one of these signals, at most for `limit` if there is one; nothing when it has passed.
std::optional<int> nextSignal(std::optional<std::chrono::milliseconds> limit = {});

/// Waits for `limit`, or less if a child ends; throws Interrupted for a signal that tells the
/// simulator to end.
void awaitInterruption(std::chrono::milliseconds limit);

/// Waits for SIGCHLD alone, at most for `limit`.
void awaitChildSignal(std::chrono::milliseconds limit);

/// Puts mask and dispositions back to those of a fresh process. For a child between fork(2) and
/// exec(3): async-signal-safe.
void resetSignals();

}  // namespace simulator
