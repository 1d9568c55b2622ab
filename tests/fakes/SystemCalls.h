#pragma once

#include <sys/statvfs.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <functional>
#include <optional>
#include <string>

/// Interposes system calls while it lives, those of its own thread: a call goes through to the
/// system unless it is told otherwise here. Only flushes to the disk never do: they would take
/// long. The steady clock stands still unless it is moved here.
struct SystemCalls {
  SystemCalls();
  SystemCalls(const SystemCalls&) = delete;
  SystemCalls& operator=(const SystemCalls&) = delete;
  ~SystemCalls();

  /// Does this before the `number`th call of the function, and lets it fail; 0: every one.
  void fail(
      const std::string& function, int error, int number = 1,
      const std::function<void()>& deed = [] {});
  void at(const std::string& function, int number, const std::function<void()>& deed) {
    fail(function, 0, number, deed);
  }

  /// Asked before each call; gives the error that the call is to fail with, or 0.
  std::function<int(const std::string& function)> before;

  size_t longestTransfer = SIZE_MAX;  ///< of `read` and `write`, in bytes
  bool typesAreUnknown = false;       ///< of the entries that `readdir` gives
  std::optional<time_t> now;
  std::chrono::milliseconds passed{};  ///< by the steady clock
  std::optional<struct statvfs> fileSystem;
};
