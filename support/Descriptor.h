#pragma once

#include <cerrno>
#include <utility>

#include "support/FileOperations.h"

namespace kst::support {

/// Owns an open file descriptor, or none (a negative one). It is closed with `closeRetrying`, and
/// `errno` stays as it was: an object that goes out of scope on the way out of a failure does not
/// hide the reason.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int open) : descriptor(open) {}
  Descriptor(Descriptor&& other) noexcept : descriptor(other.release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    const Descriptor replaced(std::exchange(descriptor, other.release()));
    return *this;
  }
  ~Descriptor() { close(); }

  void close() {
    if (descriptor >= 0) {
      const int error = errno;
      closeRetrying(release());
      errno = error;
    }
  }

  /// The descriptor, which from now on belongs to the caller.
  [[nodiscard]] int release() { return std::exchange(descriptor, -1); }

  [[nodiscard]] int get() const { return descriptor; }
  explicit operator bool() const { return descriptor >= 0; }

 private:
  int descriptor = -1;
};

}  // namespace kst::support
