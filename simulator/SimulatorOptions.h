#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

namespace simulator {

struct SimulatorOptions {
  std::string configuration;         ///< device.conf, used in place; empty: the simulator's own
  std::string root;                  ///< device root, kept; empty: a temporary one
  std::set<std::string> absent;      ///< of the parts below
  std::vector<std::string> command;  ///< empty: a shell
};

/// What may be left out of the simulated device.
inline constexpr const char* kManagerPart = "manager";
inline constexpr const char* kHelperPart = "helper";
inline constexpr const char* kCorvendPart = "corvend";
inline constexpr const char* kVexildPart = "vexild";

/// The options of a command line; nothing if it is wrong.
std::optional<SimulatorOptions> readSimulatorOptions(int argc, const char* const* argv);

}  // namespace simulator
