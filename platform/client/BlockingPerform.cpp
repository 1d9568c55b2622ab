// The blocking PerformCommand, made of the other one: for any client.

#include <future>
#include <memory>
#include <utility>

#include "platform/client/ManagerClient.h"

namespace kst::client {

CommandResult PerformCommand(std::shared_ptr<ManagerClient> manager, const std::string& command,
                             const MessageDict& request, MessageValue& reply) {
  // It comes through the queue, and so behind the state of which the caller hears there. Shared: it
  // is still in use when the wait ends.
  using Outcome = std::pair<CommandResult, MessageValue>;
  const auto promise = std::make_shared<std::promise<Outcome>>();
  PerformCommand(
      std::move(manager), command,
      [promise](const CommandResult& result, const MessageValue& value) {
        promise->set_value({result, value});
      },
      request);
  Outcome outcome = promise->get_future().get();
  reply = std::move(outcome.second);
  return outcome.first;
}

}  // namespace kst::client
