#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/client/Constants.h"
#include "platform/message/CommandResult.h"
#include "platform/message/MessageDict.h"

namespace kst {

/// A client of the helper service. Keeps nothing between calls, so it may be used from any thread.
class HelperClient {
 public:
  /// Gets a line for each call that fails. May be empty.
  using LogSink = std::function<void(const std::string& line)>;

  /// Makes a client that calls itself `name` to the service. Never empty; whether there is a
  /// service shows in `perform`.
  static std::shared_ptr<HelperClient> create(const std::string& name, LogSink logSink);

  /// Has the service perform a command and blocks until its reply is in `reply`. A request with
  /// helper::kKeyTimeout gives the service that time; one that has not answered a second later is
  /// given up with kResultReplyLost. Without it the limit is 25 s. On failure `reply` is left
  /// empty.
  CommandResult perform(helper::TaskID task, const std::string& command, MessageDict request,
                        MessageDict& reply);

 private:
  HelperClient(std::string name, LogSink logSink);

  const std::string clientName;
  const LogSink sink;
};

}  // namespace kst
