#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/dbus/Answer.h"
#include "platform/dbus/Command.h"
#include "platform/dbus/EventLoop.h"
#include "platform/dbus/Peer.h"

namespace dbus {

/// One call of `Perform`, waiting for its answer. A call that is dropped unanswered is answered
/// with kResultCallFailed.
class PerformCall {
 public:
  explicit PerformCall(AnswerReceiver receiver);

  /// Sends the answer. Callable from any thread, by one at a time; only the first counts. A null
  /// `reply` travels as an empty dictionary.
  void answer(CommandResult result, MessageValue reply = {});

  Command command;

 private:
  Answer pending;
};

/// A service's end of the bus: owns the name, serves `Perform`, and holds the server state where
/// the peer has one. Belongs to the loop's thread, on which all its callbacks come; it must outlive
/// every PerformCall and be destroyed before the loop.
class Service {
 public:
  using Handler = std::function<void(std::shared_ptr<PerformCall>)>;

  /// Connects to the system bus and takes the peer's name. `perform` gets every call; `lost` is
  /// called once when the bus goes away. Throws std::system_error when there is no bus or the name
  /// is taken.
  Service(EventLoop& loop, const Peer& peer, Handler perform, std::function<void()> lost);
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;
  ~Service();

  /// Sets the server state and tells everybody who watches it. The state is "Starting" at first.
  void setServerState(const std::string& state);

 private:
  struct Connection;
  std::unique_ptr<Connection> connection;
};

}  // namespace dbus
