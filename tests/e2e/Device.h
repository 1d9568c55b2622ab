#pragma once

#include <sstream>

#include "tests/support/Program.h"
#include "tests/support/TemporaryDirectory.h"

/// A simulated device, running as long as this lives, for programs that the test starts itself.
/// Ends in order, and fails the test if one of its parts has written what only a sanitizer writes.
class Device {
 public:
  /// Starts a device without the parts `absent`.
  explicit Device(const Words& absent = {}) : simulator(command(absent)) {
    std::istringstream lines(simulator.readUntil("\nready\n"));
    for (std::string name, value; std::getline(lines, name, '=') && std::getline(lines, value);) {
      environment[name] = value;
    }
  }

  ~Device() {
    EXPECT_EQ(simulator.finish(), 0);
    EXPECT_EQ(simulator.errors, "");
    // What a part writes begins with its name; what does not is a sanitizer's.
    const std::filesystem::path logs = directory / "root/var/log";
    for (const std::string& log : namesIn(logs)) {
      std::istringstream lines(readFile(logs / log));
      for (std::string line; std::getline(lines, line);) {
        EXPECT_EQ(line.substr(0, line.find(':')) + ".log", log) << line;
      }
    }
  }

  void killBus() const { kill(simulator.child("dbus-daemon"), SIGKILL); }

  Variables environment;  ///< of programs on the device

 private:
  [[nodiscard]] Words command(const Words& absent) const {
    Words words = {"kst-simulator", "--root", directory / "root"};
    for (const std::string& part : absent) {
      words.insert(words.end(), {"--absent", part});
    }
    // Tells the environment, then lives until its input ends.
    return joined(words, {"--", "sh", "-c", "env; echo ready; exec cat"});
  }

  const TemporaryDirectory directory;
  Program simulator;
};
