#pragma once

#include <array>
#include <thread>
#include <vector>

#include "platform/dbus/EventLoop.h"
#include "platform/dbus/SdBus.h"

/// A bus, at the address that DBUS_SYSTEM_BUS_ADDRESS names, on which every name has an owner, and
/// which falls silent: it answers no call of its first connection, one of the second, and so on up
/// to `kMostAnswers`, and none of those after that.
class SilentBus {
 public:
  static constexpr int kMostAnswers = 4;  // enough to learn who owns a name

  SilentBus();
  SilentBus(const SilentBus&) = delete;
  SilentBus& operator=(const SilentBus&) = delete;
  ~SilentBus();

 private:
  void take(int socket);

  int listener = -1;
  dbus::EventLoop loop;
  std::vector<dbus::BusPtr> connections;  // on the bus's thread
  std::array<int, kMostAnswers + 2> answersLeft = {0, 1, 2, 3, kMostAnswers, 0};
  std::thread thread;
};
