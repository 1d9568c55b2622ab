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
#include "services/CollectingService.h"
#include "services/ServiceOptions.h"

namespace {

constexpr std::int64_t kDefaultTimeout = 1500;   // milliseconds
constexpr std::int64_t kLongestTimeout = 60000;  // milliseconds
constexpr std::chrono::minutes kUnclaimedLifetime{1};

using Call = std::shared_ptr<dbus::PerformCall>;

void answerWith(const collection::CollectionOutcome& outcome, const Call& call) {
  MessageDict reply;
  if (!outcome.timestamp.empty()) {
    reply.set(kst::helper::kKeyTimestampString, outcome.timestamp);
  }
  call->answer(outcome.result, reply);
}

/// All members but the collector belong to the main thread.
class Helper {
 public:
  explicit Helper(const services::ServiceOptions& options)
      : paths(options.root),
        collector(paths, paths.helperStaging, options.limits),
        service("kestrane-helper", dbus::kHelper) {}

  int run() {
    return service.run([this] { return collector.clearStaging(); },
                       [this](Call call) { perform(std::move(call)); });
  }

 private:
  void perform(Call call) {
    const dbus::Command& command = call->command;
    if (command.task != static_cast<std::int32_t>(kst::helper::TaskID::kSyscollect) ||
        command.name != kst::helper::kCommandSyscollectStatus) {
      call->answer({kst::kResultUnknownCommand, "unknown command"});
    } else if (unclaimed) {
      answerWith(*std::exchange(unclaimed, std::nullopt), call);
    } else {
      if (!collecting) {
        startCollection();
      }
      await(std::move(call));
    }
  }

  void startCollection() {
    collecting = true;
    service.submit([this] {
      collection::CollectionRequest request;
      request.kind = collection::LogKind::kBaseband;
      request.compress = false;
      request.reason = "System diagnostic collection";
      service.post([this, outcome = collector.collect(request)] { finish(outcome); });
    });
  }

  void finish(const collection::CollectionOutcome& outcome) {
    collecting = false;
    if (waiting.empty()) {
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

  /// Lets the call wait for the collection for as long as it wants to.
  void await(Call call) {
    const std::int64_t timeout = std::clamp<std::int64_t>(
        call->command.request.integer(kst::helper::kKeyTimeout, kDefaultTimeout), 0,
        kLongestTimeout);
    service.after(std::chrono::milliseconds(timeout),
                  [this, late = std::weak_ptr(call)] { giveUp(late.lock()); });
    waiting.push_back(std::move(call));
  }

  void giveUp(const Call& call) {
    if (std::erase(waiting, call) == 0) {
      return;
    }
    call->answer({kst::kResultStillCollecting, "the collection goes on"});
  }

  const collection::DevicePaths paths;
  const collection::Collector collector;
  bool collecting = false;
  std::vector<Call> waiting;
  std::optional<collection::CollectionOutcome> unclaimed;  // finished when nobody waited any more
  services::CollectingService service;
};

}  // namespace

int main(int argc, char** argv) {
  const auto options = services::readServiceOptions(argc, argv);
  if (!options) {
    std::cerr << "usage: kestrane-helper [--root DIR] [--keep N] [--max-age SECONDS]" << std::endl;
    return 2;
  }
  return Helper(*options).run();
}
