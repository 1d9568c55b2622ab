#pragma once

#include <random>
#include <span>
#include <string>

namespace simulator {

/// Invents the lines of a daemon's log.
class LogLines {
 public:
  /// Each pattern is a line with "#" for any digit. REQUIRES: there is one, and they outlive this.
  LogLines(std::string daemon, std::span<const char* const> patterns);

  /// A line with the present time.
  std::string next();

 private:
  unsigned below(std::size_t limit);

  const std::string daemon;
  const std::span<const char* const> patterns;
  std::mt19937 random;
};

}  // namespace simulator
