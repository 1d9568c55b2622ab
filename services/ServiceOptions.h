#pragma once

#include <optional>
#include <string>

#include "collection/Collector.h"

namespace services {

struct ServiceOptions {
  std::string root = "/";  ///< of the device's file tree
  collection::SnapshotLimits limits;
};

/// The options `--root DIR`, `--keep N` and `--max-age SECONDS` of a service's command line;
/// nothing if there is anything else in it, or a number that is not positive.
std::optional<ServiceOptions> readServiceOptions(int argc, const char* const* argv);

}  // namespace services
