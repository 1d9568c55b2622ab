#include "tests/e2e/Device.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <sstream>

#include "tests/e2e/Files.h"

namespace {

Words simulatorCommand(const std::string& root, const Words& absent) {
  Words command = {"kst-simulator", "--root", root};
  for (const std::string& part : absent) {
    command.insert(command.end(), {"--absent", part});
  }
  // Tells the environment, then lives until its input ends.
  return joined(command, {"--", "sh", "-c", "env; echo ready; exec cat"});
}

}  // namespace

Device::Device(const Words& absent) : simulator(simulatorCommand(directory / "root", absent)) {
  std::istringstream lines(simulator.readUntil("\nready\n"));
  for (std::string name, value; std::getline(lines, name, '=') && std::getline(lines, value);) {
    environment[name] = value;
  }
}

Device::~Device() {
  EXPECT_EQ(simulator.finish(), 0);
  EXPECT_EQ(simulator.errors, "");
  // What a part writes begins with its name; what does not is a sanitizer's.
  for (const auto& log : entriesOf(directory / "root/var/log")) {
    std::ifstream lines(log);
    for (std::string line; std::getline(lines, line);) {
      EXPECT_TRUE(line.starts_with(log.stem().string() + ": ")) << log << ": " << line;
    }
  }
}

void Device::killBus() const {
  const pid_t bus = simulator.child("dbus-daemon");
  ASSERT_GT(bus, 0);
  kill(bus, SIGKILL);
}
