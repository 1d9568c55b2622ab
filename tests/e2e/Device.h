#pragma once

#include <filesystem>
#include <string>

#include "tests/e2e/Program.h"

/// A simulated device, running as long as this lives, for programs that the test starts itself.
class Device {
 public:
  /// Starts a device without the parts `absent`, with `settings` (key and value) on top of the
  /// simulator's device.conf.
  explicit Device(const Words& absent = {}, const Variables& settings = {});

  /// Runs ksttool on the device.
  Finished ksttool(const Words& words, const std::string& input = "") const;

  /// Kills a part and waits until it is gone.
  void kill(const std::string& program) const;

  /// The path that a printed line "Path = ..." names, below the device root.
  [[nodiscard]] std::filesystem::path below(const std::string& path) const;

  Variables environment;  ///< of programs on the device

 private:
  Program simulator;
};
