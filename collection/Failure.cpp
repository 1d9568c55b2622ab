#include "collection/Failure.h"

#include <cerrno>
#include <system_error>

namespace collection {

std::string callFailed(const std::string& call, const std::string& path) {
  const int code = errno;
  return call + " " + path + ": " + std::generic_category().message(code);
}

}  // namespace collection
