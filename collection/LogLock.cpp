#include "collection/LogLock.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <system_error>
#include <thread>
#include <utility>

#include "collection/DevicePaths.h"
#include "support/RecordLock.h"

namespace collection {
namespace {

using kst::support::Descriptor;

constexpr std::chrono::milliseconds kLookInterval{2};

}  // namespace

LogLock::LogLock(int directory, const std::string& folder) {
  constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  Descriptor opened(openat(directory, lockFileOf(folder).c_str(), kFlags));
  struct stat status = {};
  if (!opened || fstat(opened.get(), &status) != 0) {
    if (errno != ENOENT) {
      failure = "its lock: " + std::generic_category().message(errno);
    }
  } else if (!S_ISREG(status.st_mode)) {
    failure = "its lock is no regular file";
  } else {
    file = std::move(opened);
  }
}

void LogLock::take(std::chrono::milliseconds limit, const Deadline& deadline) {
  if (!file) {
    return;
  }
  const bool hasWaited = failure.has_value();
  const Deadline::Clock::time_point end =
      deadline.orAfter(hasWaited ? std::chrono::milliseconds(0) : limit);
  while (!set(F_RDLCK)) {
    if (errno != EAGAIN && errno != EACCES && errno != EINTR) {
      failure = "its lock: " + std::generic_category().message(errno);
      file.close();
      return;
    }
    if (Deadline::Clock::now() >= end) {
      failure = "its lock was held for " + std::to_string(limit.count()) + " ms";
      return;
    }
    deadline.throwIfCancelled();
    std::this_thread::sleep_for(kLookInterval);
  }
}

void LogLock::release() {
  if (file) {
    set(F_UNLCK);
  }
}

/// The lock belongs to the open file, so it does not end with another descriptor of the file.
bool LogLock::set(short type) { return kst::support::setRecordLock(file.get(), F_OFD_SETLK, type); }

}  // namespace collection
