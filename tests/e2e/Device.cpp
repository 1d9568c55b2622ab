#include "tests/e2e/Device.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <sstream>
#include <thread>

namespace {

Words simulatorCommand(const Words& absent) {
  Words command = {"kst-simulator"};
  for (const std::string& part : absent) {
    command.insert(command.end(), {"--absent", part});
  }
  // Tells the environment, then lives until its input ends.
  return joined(command, {"--", "sh", "-c", "env; echo ready; read -r end"});
}

}  // namespace

Device::Device(const Words& absent, const Variables& settings)
    : simulator(simulatorCommand(absent)) {
  std::istringstream lines(simulator.readUntil("\nready\n"));
  for (std::string line; std::getline(lines, line);) {
    const std::size_t end = line.find('=');
    if (end != std::string::npos) {
      environment[line.substr(0, end)] = line.substr(end + 1);
    }
  }
  // The last value of a key counts, and every question reads the file anew.
  std::ofstream config(environment.at("KESTRANE_DEVICE_CONF"), std::ios::app);
  for (const auto& [key, value] : settings) {
    config << key << " = " << value << "\n";
  }
}

Finished Device::ksttool(const Words& words, const std::string& input) const {
  return runProgram(joined({"ksttool"}, words), environment, input);
}

void Device::kill(const std::string& program) const {
  const pid_t process = simulator.child(program);
  ASSERT_GT(process, 0) << program;
  ::kill(process, SIGKILL);
  while (simulator.child(program) == process) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

std::filesystem::path Device::below(const std::string& path) const {
  return environment.at("KESTRANE_ROOT") + path;
}
