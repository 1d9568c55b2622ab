#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>

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
  ~PrivateBus();

  /// Starts the bus and waits until it takes connections.
  void start();

  /// Stops the bus in its tracks: it still takes connections, but answers nothing.
  void freeze() const;

  /// Lets a frozen bus go on.
  void thaw() const;

  /// Kills the bus: every connection to it breaks.
  void kill();

 private:
  std::filesystem::path folder;
  pid_t daemon = -1;
};
