// The device configuration against its rules, read once more.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <sstream>
#include <utility>

#include "platform/device/ConfigFile.h"
#include "platform/device/DeviceConfig.h"
#include "tests/fuzz/Check.h"

namespace {

std::string withoutBlanks(const std::string& text) {
  const char* const blanks = " \t\r\v\f";
  const std::size_t first = std::min(text.find_first_not_of(blanks), text.size());
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

std::int64_t strictInteger(const std::string& text) {
  const std::size_t start = text.starts_with('-') ? 1 : 0;
  const bool isNumber = text.find_first_not_of("0123456789", start) == std::string::npos;
  const std::int64_t number = isNumber ? std::strtoll(text.c_str(), nullptr, 10) : 0;
  return std::in_range<std::int32_t>(number) ? number : 0;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  static const int file = memfd_create("device.conf", MFD_CLOEXEC);
  static const std::string path = "/proc/self/fd/" + std::to_string(file);
  check(ftruncate(file, 0) == 0 && pwrite(file, bytes, size, 0) == static_cast<ssize_t>(size) &&
            setenv("KESTRANE_DEVICE_CONF", path.c_str(), 1) == 0,
        "the file is written");

  std::map<std::string, std::string> values = {{"missing key", ""}};
  std::size_t lines = 0;
  std::istringstream text(std::string(bytes, bytes + size));
  for (std::string line; std::getline(text, line);) {
    line.resize(std::min(line.find('#'), line.size()));
    const std::size_t equals = line.find('=');
    if (equals != std::string::npos) {
      values[withoutBlanks(line.substr(0, equals))] = withoutBlanks(line.substr(equals + 1));
    }
    lines += withoutBlanks(line).empty() ? 0 : 1;
  }
  const DeviceConfig config = DeviceConfig::load();
  for (const auto& [key, value] : values) {
    check(config.text(key).value_or("") == value, key + " is " + value);
    check(config.integer(key) == strictInteger(value), "the number of " + key + " = " + value);
    check(config.flag(key) == (value == "true" || value == "1"), key + " = " + value + " is true");
  }
  check(readConfigFile(path).size() == lines, "each line is read that says something");
  return 0;
}
