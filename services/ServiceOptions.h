#pragma once

#include <optional>
#include <string>

namespace services {

struct ServiceOptions {
  std::string root = "/";  ///< of the device's file tree
};

/// The option `--root DIR` of a service's command line; nothing if there is anything else in it.
std::optional<ServiceOptions> readServiceOptions(int argc, const char* const* argv);

}  // namespace services
