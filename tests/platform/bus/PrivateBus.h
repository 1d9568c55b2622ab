#pragma once

#include <sys/types.h>

#include <cstdio>
#include <string>

#include "platform/dbus/SdBus.h"
#include "tests/support/TemporaryDirectory.h"

/// A message bus of the test's own, which DBUS_SYSTEM_BUS_ADDRESS names as long as this lives. It
/// can go away and come back.
class PrivateBus {
 public:
  /// Lets the test's own user do everything.
  static const char* const kOpen;

  /// Names the bus without starting it. `policy` is what the configuration says beside the address.
  explicit PrivateBus(const std::string& policy = kOpen);
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;
  ~PrivateBus() { kill(); }

  /// A connection to the bus.
  static dbus::BusPtr connect();

  /// Starts the bus and waits until it takes connections.
  void start();

  /// Stops the bus in its tracks: it still takes connections, but answers nothing.
  void freeze() const;

  /// Lets a frozen bus go on.
  void thaw() const;

  /// Kills the bus: every connection to it breaks.
  void kill();

 private:
  const TemporaryDirectory folder;
  std::FILE* daemon = nullptr;
  pid_t id = -1;
};
