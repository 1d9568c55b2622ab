#pragma once

#include "tests/e2e/Program.h"
#include "tests/support/TemporaryDirectory.h"

/// A simulated device, running as long as this lives, for programs that the test starts itself.
/// Ends in order, and fails the test if one of its parts has written what only a sanitizer writes.
class Device {
 public:
  /// Starts a device without the parts `absent`.
  explicit Device(const Words& absent = {});
  ~Device();

  void killBus() const;

  Variables environment;  ///< of programs on the device

 private:
  const TemporaryDirectory directory;
  Program simulator;
};
