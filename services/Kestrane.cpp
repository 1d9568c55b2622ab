// The manager service: collects logs on request and answers questions about the device's traces.

#include <iostream>
#include <memory>
#include <string>
#include <utility>

#include "collection/DumpIndication.h"
#include "platform/client/Constants.h"
#include "platform/client/TraceProperty.h"
#include "services/CollectingService.h"
#include "services/ServiceOptions.h"
#include "support/FileOperations.h"

namespace {

class Manager {
 public:
  explicit Manager(const services::ServiceOptions& options)
      : paths(options.root),
        collector(paths, paths.managerStaging, options.limits),
        service("kestrane", dbus::kManager) {}

  int run() {
    return service.run(
        [this] { return clearRemains(); },
        [this](std::shared_ptr<dbus::PerformCall> call) { perform(std::move(call)); });
  }

 private:
  [[nodiscard]] collection::Failure clearRemains() const {
    kst::support::removeFile(paths.dumpIndication);
    return collector.clearStaging();
  }

  void perform(std::shared_ptr<dbus::PerformCall> call) {
    if (call->command.name == kst::kCommandGetTraceProperty) {
      call->answer({}, kst::answerTraceProperty(call->command.request));
    } else if (call->command.name == kst::kCommandTraceDumpState) {
      submitDump(std::move(call));
    } else {
      call->answer({kst::kResultUnknownCommand, "unknown command"});
    }
  }

  void submitDump(std::shared_ptr<dbus::PerformCall> call) {
    const auto request = collection::readCollectionRequest(call->command.request);
    if (!request) {
      call->answer({kst::kResultInvalidRequest, "missing or unknown action"});
      return;
    }
    service.submit([this, call = std::move(call), request = *request] {
      const collection::CollectionOutcome outcome = dump(request);
      MessageDict reply;
      if (!outcome.timestamp.empty()) {
        reply.set(kst::kKeyTimestampString, outcome.timestamp);
      }
      call->answer(outcome.result, reply);
    });
  }

  [[nodiscard]] collection::CollectionOutcome dump(
      const collection::CollectionRequest& request) const {
    const collection::DumpIndication indication(paths.dumpIndication);
    if (auto failure = indication.raise()) {
      return collection::failedCollection(*failure);
    }
    return collector.collect(request);
  }

  const collection::DevicePaths paths;
  const collection::Collector collector;
  services::CollectingService service;
};

}  // namespace

int main(int argc, char** argv) {
  const auto options = services::readServiceOptions(argc, argv);
  if (!options) {
    std::cerr << "usage: kestrane [--root DIR] [--keep N] [--max-age SECONDS]" << std::endl;
    return 2;
  }
  return Manager(*options).run();
}
