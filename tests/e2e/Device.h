#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "tests/e2e/Program.h"

/// A simulated device, running as long as this lives, for programs that the test starts itself.
class Device {
 public:
  /// Starts a device without the parts `absent`, with `settings` (key and value) on top of the
  /// simulator's device.conf.
  explicit Device(const std::vector<std::string>& absent = {},
                  const std::map<std::string, std::string>& settings = {});

  /// Runs ksttool on the device.
  Finished ksttool(const std::vector<std::string>& words, const std::string& input = "") const;

  /// The process of a part; -1 when it does not run.
  [[nodiscard]] pid_t processOf(const std::string& program) const;

  /// Kills a part and waits until it is gone.
  void kill(const std::string& program) const;

  /// The path that a printed line "Path = ..." names, below the device root.
  [[nodiscard]] std::filesystem::path below(const std::string& path) const;

  std::map<std::string, std::string> environment;  ///< of programs on the device

 private:
  Program simulator;
};
