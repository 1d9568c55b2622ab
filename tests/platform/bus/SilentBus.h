#pragma once

#include <thread>
#include <vector>

#include "platform/dbus/EventLoop.h"
#include "platform/dbus/SdBus.h"
#include "tests/platform/bus/Mailbox.h"

/// A bus, at the address that DBUS_SYSTEM_BUS_ADDRESS names, that falls silent: it answers as many
/// calls of a connection as there were connections before. Every name has an owner on it. Or it
/// hangs up on everybody.
class SilentBus {
 public:
  explicit SilentBus(bool hangsUpOnAll = false);
  SilentBus(const SilentBus&) = delete;
  SilentBus& operator=(const SilentBus&) = delete;
  ~SilentBus();

  Mailbox<bool> connected;  ///< gets something for each connection

 private:
  struct Connection {
    int answersLeft;
    dbus::BusPtr end;
  };

  void take(int socket);

  const bool hangsUp;
  int listener = -1;
  dbus::EventLoop loop;
  std::vector<std::unique_ptr<Connection>> connections;  // on the bus's thread
  std::thread thread;
};
