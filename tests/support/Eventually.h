#pragma once

#include <chrono>
#include <thread>

/// Waits until something that another thread or process does has happened. The limit is for failing
/// tests only; false when it passes.
template <typename Condition>
bool eventually(const Condition& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  bool holds = condition();
  while (!holds && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    holds = condition();
  }
  return holds;
}
