#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

/// The device configuration: lines `key = value`; `#` starts a comment. A key given twice has its
/// last value.
class DeviceConfig {
 public:
  /// Reads the file named by the environment variable KESTRANE_DEVICE_CONF, or else
  /// /etc/kestrane/device.conf. A file that is missing, unreadable or not a regular file yields a
  /// configuration without any key.
  static DeviceConfig load();

  /// The value of an integer key; 0 when it is missing or no 32-bit integer.
  [[nodiscard]] std::int32_t integer(const std::string& key) const;

  /// The value of a boolean key (`true`, `false`, `1`, `0`); false when it is missing or none of
  /// these.
  [[nodiscard]] bool flag(const std::string& key) const;

  /// The value of a text key; nothing when it is missing.
  [[nodiscard]] std::optional<std::string> text(const std::string& key) const;

 private:
  std::map<std::string, std::string> values;
};
