#pragma once

#include "support/Descriptor.h"

namespace simulator {

/// A pipe(2) that is closed on exec(3).
struct Pipe {
  /// Throws std::system_error when the system has no descriptors left.
  Pipe();

  kst::support::Descriptor reader;
  kst::support::Descriptor writer;
};

}  // namespace simulator
