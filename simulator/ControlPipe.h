#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "collection/Failure.h"
#include "support/Descriptor.h"

namespace simulator {

/// The reading end of the FIFO on which vexild takes requests, one a line.
class ControlPipe {
 public:
  /// Creates the FIFO, unless there is one, and opens it.
  collection::Failure open(const std::string& path);

  /// The requests that arrive within `time`; returns as soon as there is one.
  [[nodiscard]] std::vector<std::string> wait(std::chrono::milliseconds time) const;

 private:
  kst::support::Descriptor reader;
  kst::support::Descriptor
      writer;  // without one of its own, the reader would see an end after each request
};

}  // namespace simulator
