#include "platform/device/DeviceConfig.h"

#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>

namespace {

std::string configPath() {
  const char* const path =
      std::getenv("KESTRANE_DEVICE_CONF");  // NOLINT(concurrency-mt-unsafe): nobody sets it here
  return path ? path : "/etc/kestrane/device.conf";
}

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kBlank = " \t\r\v\f";
  const std::size_t first = text.find_first_not_of(kBlank);
  if (first == std::string_view::npos) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(kBlank) - first + 1);
}

}  // namespace

DeviceConfig DeviceConfig::load() {
  DeviceConfig config;
  const std::string path = configPath();
  std::error_code ignored;
  if (!std::filesystem::is_regular_file(path, ignored)) {
    return config;  // opening a pipe could block for good
  }
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    const std::string_view setting = std::string_view(line).substr(0, line.find('#'));
    const std::size_t equals = setting.find('=');
    if (equals != std::string_view::npos) {
      config.values[std::string(trimmed(setting.substr(0, equals)))] =
          trimmed(setting.substr(equals + 1));
    }
  }
  return config;
}

std::int32_t DeviceConfig::integer(const std::string& key) const {
  const std::string value = text(key).value_or("");
  std::int32_t number = 0;
  const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
  return error == std::errc() && end == value.data() + value.size() ? number : 0;
}

bool DeviceConfig::flag(const std::string& key) const {
  const std::string value = text(key).value_or("");
  return value == "true" || value == "1";
}

std::optional<std::string> DeviceConfig::text(const std::string& key) const {
  const auto value = values.find(key);
  return value == values.end() ? std::nullopt : std::optional(value->second);
}
