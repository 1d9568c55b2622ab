#include "services/Failure.h"

#include <cerrno>
#include <system_error>

namespace services {

std::string callFailed(const std::string& call, const std::string& path) {
  const int code = errno;
  return call + " " + path + ": " + std::generic_category().message(code);
}

}  // namespace services
