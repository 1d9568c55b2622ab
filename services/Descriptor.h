#pragma once

#include <utility>

#include "support/FileOperations.h"

namespace services {

/// Owns an open file descriptor; negative: none.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int open) : descriptor(open) {}
  Descriptor(Descriptor&& other) noexcept : descriptor(std::exchange(other.descriptor, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(descriptor, other.descriptor);
    return *this;
  }
  ~Descriptor() { close(); }

  void close() {
    if (descriptor >= 0) {
      kst::support::closeRetrying(std::exchange(descriptor, -1));
    }
  }

  [[nodiscard]] int get() const { return descriptor; }
  explicit operator bool() const { return descriptor >= 0; }

 private:
  int descriptor = -1;
};

}  // namespace services
