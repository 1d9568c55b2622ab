// What is read of a device configuration, whatever stands in it.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <map>

#include "platform/device/ConfigFile.h"
#include "platform/device/DeviceConfig.h"
#include "tests/fuzz/Check.h"

namespace {

bool isTrimmed(const std::string& text) {
  const char* const blanks = " \t\r\v\f";
  return text.find_first_of("#\n") == std::string::npos &&
         (text.empty() ||
          (text.find_first_of(blanks) != 0 && text.find_last_of(blanks) != text.size() - 1));
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  static const int file = memfd_create("device.conf", MFD_CLOEXEC);
  static const std::string path = "/proc/self/fd/" + std::to_string(file);
  check(ftruncate(file, 0) == 0 && pwrite(file, bytes, size, 0) == static_cast<ssize_t>(size) &&
            setenv("KESTRANE_DEVICE_CONF", path.c_str(), 1) == 0,
        "the file is written");

  std::map<std::string, std::string> values = {{"missing key", ""}};
  for (const auto& [key, value, hasValue] : readConfigFile(path)) {
    check(isTrimmed(key) && isTrimmed(value) && key.find('=') == std::string::npos,
          "nothing but what is said: " + key + " = " + value);
    check(hasValue || (value.empty() && !key.empty()), "a line says something: " + key);
    values[key] = hasValue ? value : values[key];
  }
  const DeviceConfig config = DeviceConfig::load();
  for (const auto& [key, value] : values) {
    const std::int32_t number = config.integer(key);
    check(config.text(key).value_or("") == value, key + " is " + value);
    check(number == 0 || std::strtoll(value.c_str(), nullptr, 10) == number, "a number: " + value);
    check(config.flag(key) == (value == "true" || value == "1"), key + " = " + value + " is true");
  }
  return 0;
}
