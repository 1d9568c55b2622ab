#pragma once

#include <sys/types.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "platform/dbus/Answer.h"
#include "platform/dbus/Command.h"
#include "platform/dbus/EventLoop.h"
#include "platform/dbus/Peer.h"

namespace dbus {

/// Who makes a call, as the bus tells it: the user and the process that connected to the bus. What
/// the bus does not tell is -1.
struct Caller {
  uid_t user = static_cast<uid_t>(-1);
  pid_t process = -1;
};

/// One call of `Perform`, waiting for its answer. A call that is dropped unanswered is answered
/// with kResultCallFailed. `command` and `caller` are set before anybody gets the call, and belong
/// to whoever has it.
class PerformCall {
 public:
  explicit PerformCall(AnswerReceiver receiver);

  /// Sends the answer. Callable from any thread, by one at a time; only the first counts. A null
  /// `reply` travels as an empty dictionary. The answer to a caller that has left goes nowhere.
  void answer(CommandResult result, MessageValue reply = {});

  /// Whether the caller has left the bus, so that nobody waits for the answer. Callable from any
  /// thread. Does not tell of the loss of the bus itself, nor of what happens after the answer.
  [[nodiscard]] bool callerHasLeft() const { return left; }

  Command command;
  Caller caller;

 private:
  friend class Service;

  std::atomic<bool> left = false;
  Answer pending;
};

/// A service's end of the bus: owns the name, serves `Perform`, and holds the server state where
/// the peer has one. Belongs to the loop's thread, on which all its callbacks come; it must be
/// destroyed before the loop. A PerformCall may outlive the service, in which case its answer goes
/// nowhere, but not the loop.
class Service {
 public:
  using Handler = std::function<void(std::shared_ptr<PerformCall>)>;

  /// Connects to the system bus and takes the peer's name; with a bus that does not answer, that
  /// fails after some seconds. `perform` gets the calls in the order in which they arrive, each
  /// once the bus has told who makes it, or has failed to; requests that are too large, and calls
  /// beyond what may wait for the bus to tell, are answered here. `lost` is called once when the
  /// bus goes away. Throws std::system_error when there is no bus or the name is taken.
  Service(EventLoop& loop, const Peer& peer, Handler perform, std::function<void()> lost);
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  /// Leaves the bus, once it has taken the answers and states that were sent, or after half a
  /// second. What is unanswered stays so.
  ~Service();

  /// Sets the server state and tells everybody who watches it. The state is "Starting" at first.
  void setServerState(const std::string& state);

 private:
  struct Connection;
  std::shared_ptr<Connection> connection;  // answers that are on their way watch it
};

}  // namespace dbus
