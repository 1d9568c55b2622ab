// Runs a command, or a shell, on a simulated device.

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "platform/options/ProgramOptions.h"
#include "platform/streams/StandardStreams.h"
#include "simulator/ChildProcess.h"
#include "simulator/PrivateBus.h"
#include "simulator/Signals.h"
#include "simulator/SimulatedDevice.h"
#include "simulator/SimulatorOptions.h"
#include "simulator/TemporaryFolder.h"
#include "support/FileOperations.h"

namespace {

namespace fs = std::filesystem;

constexpr int kNotReady = 125;
constexpr int kNotExecutable = 126;
constexpr int kNotFound = 127;

constexpr const char* kUsage =
    "usage: kst-simulator [--conf FILE] [--root DIR] [--absent NAME]... [-- COMMAND [ARG]...]\n"
    "       kst-simulator --help | --version\n"
    "Runs COMMAND, or a shell, on a simulated device and ends with its exit status.\n"
    "\n"
    "  --conf FILE    the device.conf of the device, instead of one of the simulator's own\n"
    "  --root DIR     the file tree of the device, which is kept, instead of a temporary one\n"
    "  --absent NAME  leaves out one of manager, helper, corvend, vexild\n"
    "  --help         prints this\n"
    "  --version      prints the version\n"
    "\n"
    "COMMAND finds a standard stream closed that is closed here, and these variables set:\n"
    "  DBUS_SYSTEM_BUS_ADDRESS   the bus of the device\n"
    "  KESTRANE_COLLECTION_CONF  a collection.conf of the simulator's own, unless it has a value\n"
    "  KESTRANE_DEVICE_CONF      the device.conf\n"
    "  KESTRANE_ROOT             the file tree; var/log/NAME.log below it is standard error of\n"
    "                            kestrane, kestrane-helper, Corvend and vexild\n"
    "  PATH                      the folder of kst-simulator and ksttool before all others\n";

/// A phone with everything that its tool asks for.
constexpr const char* kDeviceConfiguration =
    "radio = 1\n"
    "radio_vendor = 1\n"
    "product = 1\n"
    "internal_build = true\n"
    "trace_allowed = true\n"
    "trace.BasebandTrace.Enabled = true\n";

constexpr const char* kCollectionConfiguration =
    "# The disk of this machine is not that of the device.\n"
    "keep_free = 0\n";

std::string programFolder() { return fs::read_symlink("/proc/self/exe").parent_path(); }

std::string deviceRoot(const std::string& wanted, const std::string& temporary) {
  std::string root = wanted.empty() ? temporary + "/root" : fs::absolute(wanted).string();
  fs::create_directories(root);
  return root;
}

std::string deviceConfiguration(const std::string& wanted,
                                const simulator::TemporaryFolder& temporary) {
  if (!wanted.empty()) {
    if (!std::ifstream(wanted)) {
      throw std::runtime_error("cannot read " + wanted);
    }
    return fs::absolute(wanted);
  }
  return temporary.addFile("device.conf", kDeviceConfiguration);
}

void setVariable(const char* name, const std::string& value) {
  setenv(name, value.c_str(), 1);  // NOLINT(concurrency-mt-unsafe): there is no other thread yet
}

const char* variable(const char* name) {
  return std::getenv(name);  // NOLINT(concurrency-mt-unsafe): nobody changes it any more
}

bool hasValue(const char* name) {
  const char* value = variable(name);
  return value != nullptr && *value != '\0';
}

/// Waits for the command, and passes on to it and the device what tells the simulator to end.
int awaitEnd(simulator::ChildProcess& command, simulator::SimulatedDevice& device) {
  while (!command.hasEnded()) {
    const int signal = simulator::nextSignal().value_or(0);
    switch (signal) {
      case SIGCHLD:
        device.reap();
        break;
      case SIGHUP:
      case SIGTERM:
        command.askToEnd(signal);
        command.awaitEnd(device.beginStop());
        break;
      default:
        // SIGINT and SIGQUIT come from the terminal, which has sent them to the command too.
        break;
    }
  }
  return command.exitStatus();
}

int runCommand(const std::vector<std::string>& words, simulator::SimulatedDevice& device) {
  try {
    simulator::ChildProcess command({words});
    return awaitEnd(command, device);
  } catch (const std::system_error& error) {
    std::cerr << "kst-simulator: " << error.what() << std::endl;
    return error.code() == std::errc::no_such_file_or_directory ? kNotFound : kNotExecutable;
  }
}

std::vector<std::string> commandOrShell(const std::vector<std::string>& command) {
  if (!command.empty()) {
    return command;
  }
  return {hasValue("SHELL") ? variable("SHELL") : "/bin/sh"};
}

int simulate(const simulator::SimulatorOptions& options) {
  const simulator::TemporaryFolder folder;
  const std::string root = deviceRoot(options.root, folder.path());
  const std::string programs = programFolder();
  simulator::PrivateBus bus(folder);

  // Before any thread is started: what this process and all its children see.
  const char* path = variable("PATH");
  setVariable("DBUS_SYSTEM_BUS_ADDRESS", bus.address());
  if (!hasValue("KESTRANE_COLLECTION_CONF")) {
    setVariable("KESTRANE_COLLECTION_CONF",
                folder.addFile("collection.conf", kCollectionConfiguration));
  }
  setVariable("KESTRANE_DEVICE_CONF", deviceConfiguration(options.configuration, folder));
  setVariable("KESTRANE_ROOT", root);
  setVariable("PATH", path == nullptr ? programs : programs + ":" + path);

  simulator::SimulatedDevice device(folder, bus, programs, root, options.absent);
  device.awaitReady();
  return runCommand(commandOrShell(options.command), device);
}

}  // namespace

int main(int argc, char** argv) {
  reserveStandardDescriptors();
  if (const auto status = answerInformation(argc, argv, "kst-simulator", kUsage)) {
    return *status;
  }
  const auto options = simulator::readSimulatorOptions(argc, argv);
  if (!options) {
    std::cerr << kUsage << std::flush;
    return 2;
  }
  simulator::holdSignals();
  try {
    return simulate(*options);
  } catch (const simulator::Interrupted& interruption) {
    return 128 + interruption.signal;
  } catch (const std::exception& error) {
    std::cerr << "kst-simulator: " << error.what() << std::endl;
    return kNotReady;
  }
}
