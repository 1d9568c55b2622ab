#pragma once

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "simulator/ChildProcess.h"
#include "simulator/PrivateBus.h"
#include "simulator/TemporaryFolder.h"

namespace simulator {

/// The services and daemons of the device, which run until this object goes. They are reached as on
/// a real device: over the system bus of the environment, and in the process table.
class SimulatedDevice {
 public:
  /// Starts all parts but the absent ones, whose programs stand in `ownFolder`, that of the
  /// simulator, or where they are installed along with it; what a part writes to standard error
  /// goes to var/log/NAME.log below `deviceRoot`. Throws std::system_error for a program or a
  /// log that cannot be had.
  SimulatedDevice(const TemporaryFolder& temporaryFolder, PrivateBus& bus,
                  const std::string& ownFolder, const std::string& deviceRoot,
                  const std::set<std::string>& absent);
  SimulatedDevice(const SimulatedDevice&) = delete;
  SimulatedDevice& operator=(const SimulatedDevice&) = delete;

  /// Stops all parts, and then the bus, and waits for their end.
  ~SimulatedDevice();

  /// Waits until all that was started does its work. Throws std::runtime_error when something ends
  /// or is not ready within 10 s, and Interrupted for a signal that ends the simulator.
  void awaitReady();

  /// Asks all parts to end, and returns when those who have not will be killed, 3 s after the first
  /// call: the limit for everybody who is to end along with them.
  ChildProcess::Clock::time_point beginStop();

  /// Leaves no zombie of a part, or of the bus, that has ended.
  void reap();

 private:
  struct Part {
    ChildProcess process;
    std::function<bool()> isReady;
  };

  void start(const std::string& program, std::function<bool()> isReady);

  const TemporaryFolder& folder;
  PrivateBus& privateBus;
  const std::string simulatorFolder;
  const std::string root;
  std::vector<Part> parts;
  std::optional<ChildProcess::Clock::time_point> stopDeadline;  // set when the stop has begun
};

}  // namespace simulator
