#include "platform/device/DeviceConfig.h"

#include <charconv>
#include <system_error>
#include <utility>

#include "platform/device/ConfigFile.h"

DeviceConfig DeviceConfig::load() {
  DeviceConfig config;
  for (ConfigLine& line :
       readConfigFile(configPath("KESTRANE_DEVICE_CONF", "/etc/kestrane/device.conf"))) {
    if (line.hasValue) {
      config.values[std::move(line.key)] = std::move(line.value);
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
