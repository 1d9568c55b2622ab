#pragma once

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/dbus/EventLoop.h"
#include "platform/dbus/SdBus.h"
#include "support/Descriptor.h"
#include "tests/platform/bus/Mailbox.h"

/// A bus, at the address that DBUS_SYSTEM_BUS_ADDRESS names, on which every name has an owner, and
/// which falls silent: it answers no call of its first connection, one of the second, and so on up
/// to `kMostAnswers`, and none of those after that.
class SilentBus {
 public:
  static constexpr int kMostAnswers = 4;  // enough to learn who owns a name

  /// Or it hangs up on whoever connects.
  explicit SilentBus(bool hangsUp = false)
      : hangingUp(hangsUp), listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const std::string path = std::string(std::getenv("DBUS_SYSTEM_BUS_ADDRESS")).substr(10);
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener.get(), 8) != 0) {
      throw std::runtime_error("no bus at " + path);
    }
    const auto came = [](sd_event_source*, int, std::uint32_t, void* self) {
      static_cast<SilentBus*>(self)->take();
      return 0;
    };
    sd_event_add_io(loop.native(), nullptr, listener.get(), EPOLLIN, came, this);
    thread = std::thread([this] { loop.run(); });
  }
  SilentBus(const SilentBus&) = delete;
  SilentBus& operator=(const SilentBus&) = delete;
  ~SilentBus() {
    loop.stop();
    thread.join();
  }

  Mailbox<bool> taken;  ///< gets a value for each connection

 private:
  void take() {
    kst::support::Descriptor socket(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    taken.put(true);
    if (hangingUp) {
      return;
    }
    sd_bus* end = nullptr;
    sd_bus_new(&end);
    int& left = answersLeft[std::min(connections.size(), answersLeft.size() - 1)];
    connections.emplace_back(end);
    const int owned = socket.release();
    sd_bus_set_fd(end, owned, owned);
    sd_bus_set_server(end, 1, {.bytes = {1}});
    sd_bus_add_filter(end, nullptr, answerSome, &left);
    sd_bus_attach_event(end, loop.native(), SD_EVENT_PRIORITY_NORMAL);
    sd_bus_start(end);
  }

  static int answerSome(sd_bus_message* message, void* left, sd_bus_error* /*error*/) {
    if (--*static_cast<int*>(left) >= 0) {
      const bool asksForName = sd_bus_message_is_method_call(message, nullptr, "AddMatch") == 0;
      sd_bus_reply_method_return(message, asksForName ? "s" : "", ":1.7");
    }
    return 1;
  }

  const bool hangingUp;
  const kst::support::Descriptor listener;
  dbus::EventLoop loop;
  std::vector<dbus::BusPtr> connections;  // on the bus's thread
  std::array<int, kMostAnswers + 2> answersLeft = {0, 1, 2, 3, kMostAnswers, 0};
  std::thread thread;
};
