#include "tests/fakes/SystemCalls.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>

namespace {

thread_local SystemCalls* active = nullptr;

bool fails(const char* function) {
  const int present = errno;
  const int error = active != nullptr && active->before ? active->before(function) : 0;
  errno = error != 0 ? error : present;
  return error != 0;
}

size_t shortened(size_t length) {
  return active != nullptr ? std::min(length, active->longestTransfer) : length;
}

int withCapacity(int result, struct statvfs* status) {
  if (result == 0 && active != nullptr && active->fileSystem) {
    *status = *active->fileSystem;
  }
  return result;
}

}  // namespace

SystemCalls::SystemCalls() { active = this; }
SystemCalls::~SystemCalls() { active = nullptr; }

void SystemCalls::fail(const std::string& function, int error, int number,
                       const std::function<void()>& deed) {
  before = [=, calls = 0](const std::string& called) mutable {
    const bool isMeant = called == function && (++calls == number || number == 0);
    if (isMeant) {
      deed();
    }
    return isMeant ? error : 0;
  };
}

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): names that the library reserves
// NOLINTBEGIN(bugprone-macro-parentheses): types, names and lists

/// The system's own function. It is looked up beforehand, since the thread sanitizer calls some of
/// them for its reports, where dlsym would wait for ever.
#define SYSTEM_CALL(name, symbol) \
  static const auto real_##name = reinterpret_cast<decltype(&::name)>(dlsym(RTLD_NEXT, symbol))

/// Defines a call that fails when it is to, and has this result else.
#define INTERPOSE(type, name, symbol, signature, result) \
  SYSTEM_CALL(name, symbol);                             \
  type name signature { return fails(#name) ? -1 : result; }

extern "C" {

INTERPOSE(int, unlinkat, "unlinkat", (int at, const char* path, int flags) noexcept,
          real_unlinkat(at, path, flags))
INTERPOSE(int, mkdir, "mkdir", (const char* path, mode_t mode) noexcept, real_mkdir(path, mode))
INTERPOSE(int, mkdirat, "mkdirat", (int at, const char* path, mode_t mode) noexcept,
          real_mkdirat(at, path, mode))
INTERPOSE(int, renameat, "renameat",
          (int from, const char* path, int to, const char* free) noexcept,
          real_renameat(from, path, to, free))
INTERPOSE(int, renameat2, "renameat2",
          (int from, const char* path, int to, const char* free, unsigned flags) noexcept,
          real_renameat2(from, path, to, free, flags))
INTERPOSE(int, flock, "flock", (int file, int operation) noexcept, real_flock(file, operation))
INTERPOSE(int, fstat, "fstat64", (int file, struct stat* status) noexcept, real_fstat(file, status))
INTERPOSE(int, fstatat, "fstatat64",
          (int at, const char* path, struct stat* status, int flags) noexcept,
          real_fstatat(at, path, status, flags))
INTERPOSE(int, fchmod, "fchmod", (int file, mode_t mode) noexcept, real_fchmod(file, mode))
INTERPOSE(int, fsync, "fsync", (int file), active != nullptr ? 0 : real_fsync(file))
INTERPOSE(int, syncfs, "syncfs", (int file) noexcept, active != nullptr ? 0 : real_syncfs(file))
INTERPOSE(int, statvfs, "statvfs64", (const char* path, struct statvfs* status) noexcept,
          withCapacity(real_statvfs(path, status), status))
INTERPOSE(int, fstatvfs, "fstatvfs64", (int file, struct statvfs* status) noexcept,
          withCapacity(real_fstatvfs(file, status), status))
INTERPOSE(ssize_t, write, "write", (int file, const void* data, size_t length),
          real_write(file, data, shortened(length)))
INTERPOSE(ssize_t, read, "read", (int file, void* data, size_t length),
          real_read(file, data, shortened(length)))

SYSTEM_CALL(close, "close");
int close(int file) {
  const bool failing = fails("close");
  if (failing && errno == EINTR) {
    return -1;  // with any other error the file is closed all the same
  }
  const int error = errno;
  const int result = real_close(file);
  errno = failing ? error : errno;
  return failing ? -1 : result;
}

SYSTEM_CALL(openat, "openat64");
int openat(int directory, const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return fails("openat") ? -1 : real_openat(directory, path, flags, mode);
}

SYSTEM_CALL(fcntl, "fcntl64");
int fcntl(int file, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  return fails("fcntl") ? -1 : real_fcntl(file, command, argument);
}

SYSTEM_CALL(readdir, "readdir64");
dirent* readdir(DIR* stream) {
  dirent* const entry = fails("readdir") ? nullptr : real_readdir(stream);
  if (entry != nullptr && active != nullptr && active->typesAreUnknown) {
    entry->d_type = DT_UNKNOWN;
  }
  return entry;
}

SYSTEM_CALL(time, "time");
time_t time(time_t* result) noexcept {
  return active != nullptr && active->now ? *active->now : real_time(result);
}

SYSTEM_CALL(clock_gettime, "clock_gettime");
int clock_gettime(clockid_t clock, timespec* time) noexcept {
  if (active == nullptr || clock != CLOCK_MONOTONIC) {
    return real_clock_gettime(clock, time);
  }
  const std::chrono::nanoseconds passed = active->passed;
  time->tv_sec = static_cast<time_t>(passed / std::chrono::seconds(1));
  time->tv_nsec = static_cast<long>((passed % std::chrono::seconds(1)).count());
  return 0;
}

}  // extern "C"
// NOLINTEND(bugprone-macro-parentheses)
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
