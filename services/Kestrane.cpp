// The manager service: collects logs on request and answers questions about the device's traces.

#include <iostream>
#include <memory>
#include <utility>

#include "platform/client/Constants.h"
#include "platform/client/TraceProperty.h"
#include "platform/options/ProgramOptions.h"
#include "platform/streams/StandardStreams.h"
#include "services/CollectingService.h"

namespace {

using Call = std::shared_ptr<dbus::PerformCall>;

void collect(services::CollectingService& service, const Call& call) {
  const auto request = collection::readCollectionRequest(call->command.request);
  if (!request) {
    call->answer({kst::kResultInvalidRequest, "missing or unknown action, or a wrong type"});
    return;
  }
  service.collect({.request = *request,
                   .requester = services::requesterOf(*call),
                   .isAbandoned = [call] { return call->callerHasLeft(); },
                   .done =
                       [call](const auto& outcome) {
                         services::answerWith(outcome, kst::kKeyTimestampString, *call);
                       }});
}

void perform(services::CollectingService& service, const Call& call) {
  if (call->command.name == kst::kCommandGetTraceProperty) {
    call->answer({}, kst::answerTraceProperty(call->command.request));
  } else if (call->command.name == kst::kCommandTraceDumpState) {
    collect(service, call);
  } else {
    call->answer({kst::kResultUnknownCommand, "unknown command"});
  }
}

}  // namespace

int main(int argc, char** argv) {
  reserveStandardDescriptors();
  const DaemonOptions options =
      readDaemonOptions(argc, argv, "kestrane",
                        "The manager service: collects logs and answers questions about traces.");
  if (!options.root) {
    return options.exitStatus;
  }
  services::CollectingService service("kestrane", dbus::kManager,
                                      collection::DevicePaths(*options.root),
                                      collection::readLimits(std::cerr));
  return service.run([&service](const Call& call) { perform(service, call); });
}
