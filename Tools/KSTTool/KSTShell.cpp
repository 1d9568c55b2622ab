#include "Tools/KSTTool/KSTShell.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <list>
#include <string>

#include "Tools/KSTTool/KSTCommand.h"
#include "Tools/KSTTool/ServerRunning.h"
#include "platform/client/ManagerClient.h"
#include "platform/device/ProcessQuery.h"
#include "platform/device/ProgramName.h"
#include "platform/device/RadioInfo.h"
#include "platform/streams/StandardStreams.h"
#include "platform/tasks/MainLoop.h"
#include "platform/tasks/TaskGroup.h"
#include "platform/tasks/TaskQueue.h"
#include "trace/DevicePredicates.h"

// main's assertion holds in every build.
#undef NDEBUG
#include <cassert>

namespace {

/// How long the start waits for the service to report its state.
constexpr std::chrono::nanoseconds kServerStateWait(500'000'000);

/// On the tool's queue.
void noteServerState(const MessageValue& payload) {
  const MessageDict* event = payload.dictionary();
  const std::string state = event ? event->text(kst::kKeyServerState, "") : "";
  gServerRunning.store(state == kst::kServerStateStarted, std::memory_order_relaxed);
}

/// False, with the reason on standard output, where the tool is not to start; so for the next one.
bool checkRadio() {
  if (RadioInfo::getRadio() != 0) {
    return true;
  }
  std::cout << "'ksttool' is not supported on this product." << std::endl;
  return false;
}

bool checkDaemons() {
  const bool corvendRuns = isProcessRunning("Corvend");
  const bool needsNone = kst::trace::isDaemonlessProduct();
  if (corvendRuns || needsNone || isProcessRunning("vexild")) {
    return true;
  }
  std::cout << "Corvend process is not running. Please run/load Corvend (or vexild) and try again."
            << std::endl;
  return false;
}

}  // namespace

std::shared_ptr<CommandBase> KSTShell::createRootCommand() {
  const TaskQueue queue = TaskQueue::create("ksttool.queue");
  const std::shared_ptr<ManagerClient> manager = kst::client::CreateManager("ksttool", queue);
  const TaskGroup startUp = TaskGroup::create();
  {
    const TaskGroupHold setUp(startUp);
    kst::client::RegisterEventHandler(
        manager, kst::kEventServerStateChange,
        [manager, hold = TaskGroupHold(startUp)](
            const MessageValue& payload, const TaskGroup& /*group*/) { noteServerState(payload); });
    kst::client::EventsOff(manager);
    kst::client::EventsOn(manager);
  }
  // A client that keeps the handler keeps the group entered: this waits for the deadline, and the
  // state comes in meanwhile. One that has dropped the handler will report nothing, and there is
  // nothing to wait for.
  static_cast<void>(startUp.wait(kServerStateWait));
  return KSTCommand::create(getprogname(), {}, manager, queue);
}

const char* kestraneVersion() { return "Kestrane-1388"; }

void* shellThreadMain(void* args) {
  const auto words = *static_cast<const std::list<std::string>*>(args);
  const auto shell = std::make_shared<KSTShell>();
  exit(shell->run(words) ? EXIT_SUCCESS : EXIT_FAILURE);  // NOLINT(concurrency-mt-unsafe): what
                                                          // other threads use is never destroyed
}

int main(int argc, char** argv) {
  reserveStandardDescriptors();
  std::ios::sync_with_stdio(false);
  std::list<std::string> args(argv, argv + argc);
  if (!checkRadio() || !checkDaemons()) {
    return -1;
  }
  pthread_t shellThread{};
  const int ret = pthread_create(&shellThread, nullptr, shellThreadMain, &args);
  assert(ret == 0);
  runMainLoop();
  return 0;
}
