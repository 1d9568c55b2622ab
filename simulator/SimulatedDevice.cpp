#include "simulator/SimulatedDevice.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <tuple>
#include <utility>

#include "collection/DevicePaths.h"
#include "platform/client/HelperClient.h"
#include "platform/client/ManagerClient.h"
#include "simulator/Signals.h"
#include "simulator/SimulatorOptions.h"

namespace simulator {
namespace {

using Clock = ChildProcess::Clock;

constexpr std::chrono::seconds kStartLimit{10};
constexpr std::chrono::seconds kStopLimit{3};
constexpr std::chrono::milliseconds kLookInterval{10};
constexpr const char* kClientName = "kst-simulator";

/// Beside the simulator, as in a build tree, or in the folders for what nobody calls by name, as
/// installed.
std::string findProgram(const std::string& simulatorFolder, const std::string& program) {
  std::filesystem::path path;
  for (const char* folder : {".", KST_SERVICES_FOLDER, KST_DAEMONS_FOLDER}) {
    path = std::filesystem::path(simulatorFolder) / folder / program;
    if (access(path.c_str(), F_OK) == 0) {
      break;
    }
  }
  return path;
}

/// True once the manager has reported that it is started.
std::function<bool()> managerStarted() {
  const auto started = std::make_shared<std::atomic<bool>>(false);
  const auto client =
      kst::client::CreateManager(kClientName, TaskQueue::create("simulator.manager"));
  kst::client::RegisterEventHandler(
      client, kst::kEventServerStateChange,
      [started](const MessageValue& payload, const TaskGroup& /*group*/) {
        const MessageDict* event = payload.dictionary();
        *started =
            event != nullptr && event->text(kst::kKeyServerState, "") == kst::kServerStateStarted;
      });
  kst::client::EventsOn(client);
  return [started, client] { return started->load(); };
}

/// True once the helper answers, if only that it does not know the command.
std::function<bool()> helperAnswers() {
  return [client = kst::HelperClient::create(kClientName, {})] {
    MessageDict request;
    request.set(kst::helper::kKeyTimeout, std::int64_t{100});
    MessageDict reply;
    const CommandResult result =
        client->perform(kst::helper::TaskID::kSyscollect, "AreYouThere", std::move(request), reply);
    return result.status == kst::kResultUnknownCommand;
  };
}

/// True once something is written to the log, which may be there from an earlier run.
std::function<bool()> logGrows(const std::string& log) {
  const auto look = [log] {
    struct stat status = {};
    stat(log.c_str(), &status);
    return std::tuple(status.st_ino, status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec);
  };
  return [look, before = look()] { return look() != before; };
}

}  // namespace

SimulatedDevice::SimulatedDevice(const TemporaryFolder& temporaryFolder, PrivateBus& bus,
                                 const std::string& ownFolder, const std::string& deviceRoot,
                                 const std::set<std::string>& absent)
    : folder(temporaryFolder), privateBus(bus), simulatorFolder(ownFolder), root(deviceRoot) {
  const collection::DevicePaths paths(root);
  const auto present = [&](const char* part) { return !absent.contains(part); };
  if (present(kCorvendPart)) {
    start("Corvend", logGrows(paths.telephonyLogs + "/telephony.log"));
  }
  if (present(kVexildPart)) {
    start("vexild", logGrows(paths.basebandLogs + "/diag.log"));
  }
  if (present(kManagerPart)) {
    start("kestrane", managerStarted());
  }
  if (present(kHelperPart)) {
    start("kestrane-helper", helperAnswers());
  }
}

SimulatedDevice::~SimulatedDevice() {
  const Clock::time_point deadline = beginStop();
  for (Part& part : parts) {
    part.process.awaitEnd(deadline);
  }
  // A client that waits for a bus which does not answer goes only when that is gone.
  privateBus.stop();
}

Clock::time_point SimulatedDevice::beginStop() {
  if (!stopDeadline) {
    stopDeadline = Clock::now() + kStopLimit;
    // A service that waits for the bus ends when that goes on.
    privateBus.wake();
    for (Part& part : parts) {
      part.process.askToEnd();
    }
  }
  return *stopDeadline;
}

void SimulatedDevice::start(const std::string& program, std::function<bool()> isReady) {
  const std::filesystem::path logs = std::filesystem::path(root) / "var/log";
  std::filesystem::create_directories(logs);
  ChildProcess process({.command = {findProgram(simulatorFolder, program), "--root", root},
                        .background = true,
                        .errorFile = logs / (program + ".log"),
                        .descriptors = {folder.lifeline()}});
  parts.push_back({std::move(process), std::move(isReady)});
}

void SimulatedDevice::awaitReady() {
  const Clock::time_point deadline = Clock::now() + kStartLimit;
  for (Part& part : parts) {
    while (!part.isReady()) {
      const std::string& name = part.process.name();
      if (part.process.hasEnded()) {
        throw std::runtime_error(part.process.withErrors(name + " has ended"));
      }
      if (Clock::now() >= deadline) {
        throw std::runtime_error(part.process.withErrors(name + " did not get ready"));
      }
      awaitInterruption(kLookInterval);
    }
    // Lets go of the client that has watched it.
    part.isReady = nullptr;
  }
}

void SimulatedDevice::reap() {
  privateBus.reap();
  for (Part& part : parts) {
    part.process.hasEnded();
  }
}

}  // namespace simulator
