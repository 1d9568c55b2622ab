#include "tests/e2e/Device.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <sstream>
#include <thread>

namespace {

std::vector<std::string> simulatorCommand(const std::vector<std::string>& absent) {
  std::vector<std::string> command = {"kst-simulator"};
  for (const std::string& part : absent) {
    command.insert(command.end(), {"--absent", part});
  }
  // Tells the environment, then lives until its input ends.
  command.insert(command.end(), {"--", "sh", "-c", "env; echo ready; read -r end"});
  return command;
}

}  // namespace

Device::Device(const std::vector<std::string>& absent,
               const std::map<std::string, std::string>& settings)
    : simulator(simulatorCommand(absent)) {
  std::istringstream lines(simulator.readUntil("\nready\n"));
  for (std::string line; std::getline(lines, line);) {
    for (const std::string name :
         {"DBUS_SYSTEM_BUS_ADDRESS", "KESTRANE_DEVICE_CONF", "KESTRANE_ROOT", "PATH"}) {
      if (line.starts_with(name + "=")) {
        environment[name] = line.substr(name.size() + 1);
      }
    }
  }
  // The last value of a key counts, and every question reads the file anew.
  std::ofstream config(environment.at("KESTRANE_DEVICE_CONF"), std::ios::app);
  for (const auto& [key, value] : settings) {
    config << key << " = " << value << "\n";
  }
}

Finished Device::ksttool(const std::vector<std::string>& words, const std::string& input) const {
  std::vector<std::string> command = {"ksttool"};
  command.insert(command.end(), words.begin(), words.end());
  return runProgram(command, environment, input);
}

pid_t Device::processOf(const std::string& program) const { return simulator.child(program); }

void Device::kill(const std::string& program) const {
  const pid_t process = processOf(program);
  ASSERT_GT(process, 0) << program;
  ::kill(process, SIGKILL);
  while (processOf(program) == process) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

std::filesystem::path Device::below(const std::string& path) const {
  return environment.at("KESTRANE_ROOT") + path;
}
