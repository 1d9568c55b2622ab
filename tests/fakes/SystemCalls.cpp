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
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace {

thread_local SystemCalls* active = nullptr;

template <typename Function>
Function next(const char* name) {
  void* const found = dlsym(RTLD_NEXT, name);
  if (found == nullptr) {
    fprintf(stderr, "SystemCalls: no %s here\n", name);
    abort();
  }
  return reinterpret_cast<Function>(found);
}

/// The system's own functions. They are looked up beforehand, since the thread sanitizer calls some
/// of them for its reports, where dlsym would wait for ever.
const struct {
  decltype(&::write) write = next<decltype(write)>("write");
  decltype(&::read) read = next<decltype(read)>("read");
  decltype(&::close) close = next<decltype(close)>("close");
  decltype(&::openat) openat = next<decltype(openat)>("openat64");
  decltype(&::unlinkat) unlinkat = next<decltype(unlinkat)>("unlinkat");
  decltype(&::mkdir) mkdir = next<decltype(mkdir)>("mkdir");
  decltype(&::mkdirat) mkdirat = next<decltype(mkdirat)>("mkdirat");
  decltype(&::renameat) renameat = next<decltype(renameat)>("renameat");
  decltype(&::renameat2) renameat2 = next<decltype(renameat2)>("renameat2");
  decltype(&::futimens) futimens = next<decltype(futimens)>("futimens");
  decltype(&::flock) flock = next<decltype(flock)>("flock");
  decltype(&::fsync) fsync = next<decltype(fsync)>("fsync");
  decltype(&::syncfs) syncfs = next<decltype(syncfs)>("syncfs");
  decltype(&::fstat) fstat = next<decltype(fstat)>("fstat64");
  decltype(&::fstatat) fstatat = next<decltype(fstatat)>("fstatat64");
  decltype(&::fchmod) fchmod = next<decltype(fchmod)>("fchmod");
  decltype(&::fcntl) fcntl = next<decltype(fcntl)>("fcntl64");
  decltype(&::readdir) readdir = next<decltype(readdir)>("readdir64");
  decltype(&::statvfs) statvfs = next<decltype(statvfs)>("statvfs64");
  decltype(&::fstatvfs) fstatvfs = next<decltype(fstatvfs)>("fstatvfs64");
  decltype(&::time) time = next<decltype(time)>("time");
} real;

bool fails(const char* function) {
  const int present = errno;
  const int error = active != nullptr && active->before ? active->before(function) : 0;
  errno = error != 0 ? error : present;
  return error != 0;
}

size_t shortened(size_t length) {
  return active != nullptr ? std::min(length, active->longestTransfer) : length;
}

}  // namespace

SystemCalls::SystemCalls() { active = this; }
SystemCalls::~SystemCalls() { active = nullptr; }

void SystemCalls::fail(const std::string& function, int error, int number) {
  before = [=, calls = 0](const std::string& called) mutable {
    return called == function && (++calls == number || number == 0) ? error : 0;
  };
}

void SystemCalls::at(const std::string& function, int number, const std::function<void()>& deed) {
  before = [=, calls = 0](const std::string& called) mutable {
    if (called == function && (++calls == number || number == 0)) {
      deed();
    }
    return 0;
  };
}

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): names that the library reserves
extern "C" {

ssize_t write(int file, const void* data, size_t length) {
  return fails("write") ? -1 : real.write(file, data, shortened(length));
}

ssize_t read(int file, void* data, size_t length) {
  return fails("read") ? -1 : real.read(file, data, shortened(length));
}

int close(int file) {
  const bool failing = fails("close");
  if (failing && errno == EINTR) {
    return -1;  // with any other error the file is closed all the same
  }
  const int error = errno;
  const int result = real.close(file);
  errno = failing ? error : errno;
  return failing ? -1 : result;
}

int openat(int directory, const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return fails("openat") ? -1 : real.openat(directory, path, flags, mode);
}

int unlinkat(int directory, const char* path, int flags) noexcept {
  return fails("unlinkat") ? -1 : real.unlinkat(directory, path, flags);
}

int mkdir(const char* path, mode_t mode) noexcept {
  return fails("mkdir") ? -1 : real.mkdir(path, mode);
}

int mkdirat(int directory, const char* path, mode_t mode) noexcept {
  return fails("mkdirat") ? -1 : real.mkdirat(directory, path, mode);
}

int renameat(int from, const char* oldPath, int to, const char* newPath) noexcept {
  return fails("renameat") ? -1 : real.renameat(from, oldPath, to, newPath);
}

int renameat2(int from, const char* oldPath, int to, const char* newPath, unsigned flags) noexcept {
  return fails("renameat2") ? -1 : real.renameat2(from, oldPath, to, newPath, flags);
}

int futimens(int file, const timespec* times) noexcept {
  return fails("futimens") ? -1 : real.futimens(file, times);
}

int flock(int file, int operation) noexcept {
  return fails("flock") ? -1 : real.flock(file, operation);
}

int fsync(int file) {
  const bool failing = fails("fsync");
  return failing ? -1 : (active != nullptr ? 0 : real.fsync(file));
}

int syncfs(int file) noexcept {
  const bool failing = fails("syncfs");
  return failing ? -1 : (active != nullptr ? 0 : real.syncfs(file));
}

int fstat(int file, struct stat* status) noexcept {
  return fails("fstat") ? -1 : real.fstat(file, status);
}

int fstatat(int directory, const char* path, struct stat* status, int flags) noexcept {
  return fails("fstatat") ? -1 : real.fstatat(directory, path, status, flags);
}

int fchmod(int file, mode_t mode) noexcept {
  return fails("fchmod") ? -1 : real.fchmod(file, mode);
}

int fcntl(int file, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  return fails("fcntl") ? -1 : real.fcntl(file, command, argument);
}

dirent* readdir(DIR* stream) {
  static thread_local std::pair<DIR*, dirent*> again;
  if (fails("readdir")) {
    return nullptr;
  }
  const auto [former, repeated] = std::exchange(again, {});
  if (repeated != nullptr && former == stream) {
    return repeated;
  }
  dirent* const entry = real.readdir(stream);
  if (entry != nullptr && entry->d_type == DT_REG && active != nullptr && active->repeatsFiles) {
    again = {stream, entry};
  }
  if (entry != nullptr && active != nullptr && active->typesAreUnknown) {
    entry->d_type = DT_UNKNOWN;
  }
  return entry;
}

int statvfs(const char* path, struct statvfs* status) noexcept {
  const int result = fails("statvfs") ? -1 : real.statvfs(path, status);
  if (result == 0 && active != nullptr && active->fileSystem) {
    *status = *active->fileSystem;
  }
  return result;
}

int fstatvfs(int file, struct statvfs* status) noexcept {
  const int result = fails("fstatvfs") ? -1 : real.fstatvfs(file, status);
  if (result == 0 && active != nullptr && active->fileSystem) {
    *status = *active->fileSystem;
  }
  return result;
}

time_t time(time_t* result) noexcept {
  return active != nullptr && active->now ? *active->now : real.time(result);
}

}  // extern "C"
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
