#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <thread>

#include "platform/dbus/Answer.h"
#include "platform/dbus/Command.h"
#include "platform/dbus/Peer.h"

namespace dbus {

/// A client's connection to a service that has a server state. Works on an I/O thread of its own,
/// which alone touches the bus; connects as soon as there is a bus, and again whenever it has lost
/// it.
class ClientConnection {
 public:
  /// The server state: nothing while the service is not on the bus, null while it does not tell it
  /// as a text.
  using StateHandler = std::function<void(std::optional<MessageValue> state)>;

  /// Starts to connect and returns at once. `stateChanged` is called on the I/O thread with what
  /// the first look at the bus shows and then with every change, in order; where the system has no
  /// thread or descriptor left, once, from here, with nothing.
  ClientConnection(const Peer& peer, StateHandler stateChanged);
  ClientConnection(const ClientConnection&) = delete;
  ClientConnection& operator=(const ClientConnection&) = delete;

  /// Ends the I/O thread and waits for it; calls that are out are answered with kResultReplyLost.
  /// REQUIRES: not the I/O thread.
  ~ClientConnection();

  /// Sends a command. Never blocks; callable from any thread. `answered` is called exactly once,
  /// mostly on the I/O thread, however long the service takes: with the reply, or with a status
  /// that says why there is none.
  void perform(Command command, AnswerReceiver answered);

 private:
  class Io;

  Peer peer;
  std::unique_ptr<Io> io;  // empty where the system had no resources for it
  std::thread thread;
};

}  // namespace dbus
