#pragma once

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "collection/DevicePaths.h"
#include "simulator/ChildProcess.h"
#include "simulator/TemporaryFolder.h"

namespace simulator {

/// The services and daemons of the device, which run until this object goes. They are reached as on
/// a real device: over the system bus of the environment, and in the process table.
class SimulatedDevice {
 public:
  /// Starts all parts but the absent ones, from `programFolder`. Throws std::system_error for
  /// a program that cannot be started.
  SimulatedDevice(const TemporaryFolder& temporaryFolder, const std::string& programFolder,
                  const std::string& deviceRoot, const std::set<std::string>& absent);
  SimulatedDevice(const SimulatedDevice&) = delete;
  SimulatedDevice& operator=(const SimulatedDevice&) = delete;

  /// Waits until all that was started does its work. Throws std::runtime_error when something ends
  /// or is not ready within 10 s, and Interrupted for a signal that ends the simulator.
  void awaitReady();

  /// Leaves no zombie of a part that has ended.
  void reap();

 private:
  struct Part {
    ChildProcess process;
    std::function<bool()> isReady;
  };

  void start(const std::string& program, std::function<bool()> isReady);

  const TemporaryFolder& folder;
  const std::string programs;
  const std::string root;
  std::vector<Part> parts;
};

}  // namespace simulator
