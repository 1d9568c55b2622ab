#include "platform/device/ConfigFile.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <string_view>

namespace {

std::string trimmed(std::string_view text) {
  constexpr std::string_view kBlank = " \t\r\v\f";
  const std::size_t first = text.find_first_not_of(kBlank);
  if (first == std::string_view::npos) {
    return {};
  }
  return std::string(text.substr(first, text.find_last_not_of(kBlank) - first + 1));
}

}  // namespace

std::string configPath(const char* variable, const char* otherwise) {
  const char* const path = std::getenv(variable);  // NOLINT(concurrency-mt-unsafe): nobody sets it
  return path ? path : otherwise;
}

std::vector<ConfigLine> readConfigFile(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) {
    return {};
  }
  if (!S_ISREG(status.st_mode)) {
    errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    return {};  // opening a pipe could block for good
  }
  errno = 0;
  std::ifstream file(path);
  if (!file) {
    return {};
  }
  std::vector<ConfigLine> lines;
  for (std::string line; std::getline(file, line);) {
    const std::string_view setting = std::string_view(line).substr(0, line.find('#'));
    const std::size_t equals = setting.find('=');
    const bool hasValue = equals != std::string_view::npos;
    std::string key = trimmed(setting.substr(0, equals));
    if (hasValue || !key.empty()) {
      lines.push_back(
          {std::move(key), hasValue ? trimmed(setting.substr(equals + 1)) : "", hasValue});
    }
  }
  errno = file.bad() ? EIO : 0;
  return errno == 0 ? lines : std::vector<ConfigLine>();
}
