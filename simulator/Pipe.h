#pragma once

#include "services/Descriptor.h"

namespace simulator {

/// A pipe(2) that is closed on exec(3).
struct Pipe {
  /// Throws std::system_error when the system has no descriptors left.
  Pipe();

  services::Descriptor reader;
  services::Descriptor writer;
};

}  // namespace simulator
