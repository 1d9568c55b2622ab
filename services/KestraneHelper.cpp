// The helper service: collects baseband logs for those who find the manager not running.

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/client/Constants.h"
#include "platform/options/ProgramOptions.h"
#include "platform/streams/StandardStreams.h"
#include "services/CollectingService.h"

namespace {

constexpr std::chrono::milliseconds kDefaultTimeout{1500};
constexpr std::chrono::milliseconds kLongestTimeout{60'000};
constexpr std::chrono::minutes kUnclaimedLifetime{1};

using Call = std::shared_ptr<dbus::PerformCall>;

void answerWith(const collection::CollectionOutcome& outcome, const Call& call) {
  services::answerWith(outcome, kst::helper::kKeyTimestampString, *call);
}

/// Belongs to the main thread.
class Helper {
 public:
  Helper(const std::string& root, const collection::Limits& collectionLimits)
      : limits(collectionLimits),
        service("kestrane-helper", dbus::kHelper, collection::DevicePaths(root), limits) {}

  int run() {
    return service.run([this](Call call) { perform(std::move(call)); });
  }

 private:
  void perform(Call call) {
    const dbus::Command& command = call->command;
    if (command.task != static_cast<std::int32_t>(kst::helper::TaskID::kSyscollect) ||
        command.name != kst::helper::kCommandSyscollectStatus) {
      call->answer({kst::kResultUnknownCommand, "unknown command"});
    } else if (!isTimeoutValid(command.request)) {
      call->answer({kst::kResultInvalidRequest, "the timeout is no number"});
    } else if (unclaimed) {
      answerWith(*std::exchange(unclaimed, std::nullopt), call);
    } else {
      await(std::move(call));
    }
  }

  static bool isTimeoutValid(const MessageDict& request) {
    const MessageValue* timeout = request.find(kst::helper::kKeyTimeout);
    return timeout == nullptr || timeout->integer() != nullptr;
  }

  /// Lets the call wait for the collection for as long as it wants to.
  void await(Call call) {
    std::erase_if(waiting, [](const Call& other) { return other->callerHasLeft(); });
    if (waiting.size() > limits.maxWaiting) {
      call->answer({kst::kResultBusy, "too many requests are waiting"});
      return;
    }
    const std::chrono::milliseconds wanted(
        call->command.request.integer(kst::helper::kKeyTimeout, kDefaultTimeout.count()));
    service.after(std::clamp(wanted, std::chrono::milliseconds(0), kLongestTimeout),
                  [this, late = std::weak_ptr(call)] { giveUp(late.lock()); });
    waiting.push_back(call);
    if (!std::exchange(collecting, true)) {
      startCollection(*call);
    }
  }

  /// Goes on when those who have asked have given up: the tool asks for a short time only.
  void startCollection(const dbus::PerformCall& call) {
    collection::CollectionRequest request;
    request.kind = collection::LogKind::kBaseband;
    request.compress = false;
    request.reason = "System diagnostic collection";
    service.collect({.request = request,
                     .requester = services::requesterOf(call),
                     .isAbandoned = [] { return false; },
                     .done = [this](const auto& outcome) { finish(outcome); }});
  }

  void finish(const collection::CollectionOutcome& outcome) {
    collecting = false;
    std::erase_if(waiting, [](const Call& call) { return call->callerHasLeft(); });
    if (waiting.empty() && outcome.result.status == 0) {
      keepForNextCall(outcome);
    }
    for (const Call& call : std::exchange(waiting, {})) {
      answerWith(outcome, call);
    }
  }

  /// Who asks again soon gets what was not ready in time; who asks later wants logs of then.
  void keepForNextCall(const collection::CollectionOutcome& outcome) {
    unclaimed = outcome;
    service.after(kUnclaimedLifetime, [this, timestamp = outcome.timestamp] {
      if (unclaimed && unclaimed->timestamp == timestamp) {
        unclaimed.reset();
      }
    });
  }

  void giveUp(const Call& call) {
    if (std::erase(waiting, call) == 0) {
      return;
    }
    call->answer({kst::kResultStillCollecting, "the collection goes on"});
  }

  const collection::Limits limits;
  services::CollectingService service;
  bool collecting = false;
  std::vector<Call> waiting;
  std::optional<collection::CollectionOutcome> unclaimed;  // finished when nobody waited any more
};

}  // namespace

int main(int argc, char** argv) {
  reserveStandardDescriptors();
  const DaemonOptions options = readDaemonOptions(
      argc, argv, "kestrane-helper",
      "The helper service: collects baseband logs while the manager does not run.");
  if (!options.root) {
    return options.exitStatus;
  }
  return Helper(*options.root, collection::readLimits(std::cerr)).run();
}
