#pragma once

#include <string>
#include <vector>

/// One line of a configuration file, without its comment and the blanks around what it says.
struct ConfigLine {
  std::string key;    ///< the whole line if it has no "="
  std::string value;  ///< empty if nothing stands behind the "="
  bool hasValue;      ///< there is a "="
};

/// Where a configuration file lies: the value of the environment variable, or else `otherwise`.
std::string configPath(const char* variable, const char* otherwise);

/// The lines of a configuration file that say something, in order: `key = value`; `#` starts a
/// comment. None if the file is missing, unreadable or not a regular file. `errno` tells the
/// reason, 0 for none.
std::vector<ConfigLine> readConfigFile(const std::string& path);
