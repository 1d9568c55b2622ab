#include "services/ServiceOptions.h"

#include <string_view>

namespace services {

std::optional<ServiceOptions> readServiceOptions(int argc, const char* const* argv) {
  ServiceOptions options;
  for (int index = 1; index < argc; index += 2) {
    if (index + 1 == argc || std::string_view(argv[index]) != "--root" ||
        *argv[index + 1] == '\0') {
      return {};
    }
    options.root = argv[index + 1];
  }
  return options;
}

}  // namespace services
