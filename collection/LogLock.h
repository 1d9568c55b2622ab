#pragma once

#include <chrono>
#include <string>

#include "collection/Progress.h"
#include "support/Descriptor.h"

namespace collection {

/// The lock file beside a folder of logs, FOLDER.lock: the daemon that writes the folder locks it
/// exclusively (fcntl(2)) while it writes or rotates a log. It stands beside the folder, so nobody
/// closes it by reading the logs. A folder without one is written by no daemon.
class LogLock {
 public:
  /// Opens the lock file of `folder` in the open directory, if there is one.
  LogLock(int directory, const std::string& folder);

  /// Takes the shared lock; waits for `limit` at most, and after a wait in vain not again. Without
  /// it, `problem` tells why. Throws as `progress.check` does.
  void take(std::chrono::milliseconds limit, const Progress& progress);

  void release();

  /// Why the logs are not locked, for people; empty if they are or need not be.
  [[nodiscard]] const std::string& problem() const { return trouble; }

 private:
  bool set(short type);

  kst::support::Descriptor file;  // none if there is nothing to lock
  std::string trouble;
};

}  // namespace collection
