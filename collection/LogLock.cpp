#include "collection/LogLock.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <system_error>
#include <thread>
#include <utility>

#include "collection/DevicePaths.h"

namespace collection {
namespace {

using kst::support::Descriptor;

constexpr std::chrono::milliseconds kLookInterval{2};

}  // namespace

LogLock::LogLock(int directory, const std::string& folder) {
  constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  Descriptor opened(openat(directory, lockFileOf(folder).c_str(), kFlags));
  struct stat status{};
  if (!opened || fstat(opened.get(), &status) != 0) {
    trouble = errno == ENOENT ? "" : "its lock: " + std::generic_category().message(errno);
  } else if (!S_ISREG(status.st_mode)) {
    trouble = "its lock is no regular file";
  } else {
    file = std::move(opened);
  }
}

void LogLock::take(std::chrono::milliseconds limit, const Progress& progress) {
  if (!file) {
    return;
  }
  const bool hasWaited = !trouble.empty();
  const Progress::Clock::time_point deadline =
      progress.deadline(hasWaited ? std::chrono::milliseconds(0) : limit);
  while (!set(F_RDLCK)) {
    if (errno != EAGAIN && errno != EACCES && errno != EINTR) {
      trouble = "its lock: " + std::generic_category().message(errno);
      file.close();
      return;
    }
    if (Progress::Clock::now() >= deadline) {
      trouble = "its lock was held for " + std::to_string(limit.count()) + " ms";
      return;
    }
    progress.check();
    std::this_thread::sleep_for(kLookInterval);
  }
}

void LogLock::release() {
  if (file) {
    set(F_UNLCK);
  }
}

/// The lock belongs to the open file, so it does not end with another descriptor of the file.
bool LogLock::set(short type) {
  struct flock lock{};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  return fcntl(file.get(), F_OFD_SETLK, &lock) == 0;
}

}  // namespace collection
