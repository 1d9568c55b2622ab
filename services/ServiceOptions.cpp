#include "services/ServiceOptions.h"

#include <charconv>
#include <string_view>
#include <system_error>

namespace services {
namespace {

template <typename Number>
bool readPositive(std::string_view text, Number& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() && number > 0;
}

bool readOption(std::string_view option, std::string_view value, ServiceOptions& options) {
  if (option == "--root") {
    options.root = value;
    return !value.empty();
  }
  if (option == "--keep") {
    return readPositive(value, options.limits.number);
  }
  if (option == "--max-age") {
    return readPositive(value, options.limits.maximumAge);
  }
  return false;
}

}  // namespace

std::optional<ServiceOptions> readServiceOptions(int argc, const char* const* argv) {
  ServiceOptions options;
  for (int index = 1; index < argc; index += 2) {
    if (index + 1 == argc || !readOption(argv[index], argv[index + 1], options)) {
      return {};
    }
  }
  return options;
}

}  // namespace services
