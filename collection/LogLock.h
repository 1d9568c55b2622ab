#pragma once

#include <chrono>
#include <string>

#include "collection/Deadline.h"
#include "collection/Failure.h"
#include "support/Descriptor.h"

namespace collection {

/// The shared side of a folder's lock file (`lockFileOf`). A folder without one is written by no
/// daemon.
class LogLock {
 public:
  /// Opens the lock file of `folder` in the open directory, if there is one.
  LogLock(int directory, const std::string& folder);

  /// Takes the shared lock; waits for `limit` at most, and after a wait in vain not again. Without
  /// it, `problem` tells why. Throws as `deadline.throwIfCancelled` does.
  void take(std::chrono::milliseconds limit, const Deadline& deadline);

  void release();

  /// Why the logs were not locked at some time; none if they always were or need not be.
  [[nodiscard]] const Failure& problem() const { return failure; }

 private:
  bool set(short type);

  kst::support::Descriptor file;  // none if there is nothing to lock
  Failure failure;
};

}  // namespace collection
