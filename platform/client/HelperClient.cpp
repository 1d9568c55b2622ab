#include "platform/client/HelperClient.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <optional>
#include <utility>

#include "platform/dbus/BlockingCall.h"

namespace kst {

namespace {

/// What a request without a timeout gets, and the most that any gets.
constexpr std::chrono::milliseconds kDefaultTimeout = std::chrono::seconds(24);
constexpr std::chrono::milliseconds kLongestTimeout = std::chrono::hours(1);

/// What the way there and back may take on top.
constexpr std::chrono::milliseconds kGrace = std::chrono::seconds(1);

std::chrono::milliseconds limitOf(const MessageDict& request) {
  const std::int64_t timeout = request.integer(helper::kKeyTimeout, kDefaultTimeout.count());
  return std::chrono::milliseconds(std::clamp<std::int64_t>(timeout, 0, kLongestTimeout.count())) +
         kGrace;
}

}  // namespace

HelperClient::HelperClient(std::string name, LogSink logSink)
    : clientName(std::move(name)), sink(std::move(logSink)) {}

std::shared_ptr<HelperClient> HelperClient::create(const std::string& name, LogSink logSink) {
  return std::shared_ptr<HelperClient>(new HelperClient(name, std::move(logSink)));
}

CommandResult HelperClient::perform(helper::TaskID task, const std::string& command,
                                    MessageDict request, MessageDict& reply) {
  const std::chrono::milliseconds limit = limitOf(request);
  const dbus::Command call{clientName, static_cast<std::int32_t>(task), command,
                           std::move(request)};
  std::optional<MessageValue> value;
  CommandResult result = dbus::callBlocking(dbus::kHelper, call, limit, value);
  const MessageDict* dictionary = result.status == 0 && value ? value->dictionary() : nullptr;
  reply = dictionary ? *dictionary : MessageDict();
  if (result.status != 0 && sink) {
    sink(command + ": " + result.text);
  }
  return result;
}

}  // namespace kst
