#pragma once

#include <string>

#include "simulator/ChildProcess.h"
#include "simulator/TemporaryFolder.h"

namespace simulator {

/// A message bus of the simulated device's own, open to everything that this user does.
class PrivateBus {
 public:
  /// Returns when the bus takes connections; throws std::system_error or std::runtime_error when it
  /// cannot be brought to that within 10 s, and Interrupted for a signal that ends the simulator.
  explicit PrivateBus(const TemporaryFolder& folder);

  /// For DBUS_SYSTEM_BUS_ADDRESS.
  [[nodiscard]] const std::string& address() const { return busAddress; }

  /// Lets it go on if it is stopped, for those who wait for it.
  void wake() { daemon.wake(); }

  /// Ends it, whatever state it is in.
  void stop() { daemon.awaitEnd(ChildProcess::Clock::now()); }

  /// Leaves no zombie if the bus has ended.
  void reap() { daemon.hasEnded(); }

 private:
  std::string busAddress;
  ChildProcess daemon;
};

}  // namespace simulator
