#include "simulator/Pipe.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace simulator {

Pipe::Pipe() {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe");
  }
  reader = kst::support::Descriptor(ends[0]);
  writer = kst::support::Descriptor(ends[1]);
}

}  // namespace simulator
