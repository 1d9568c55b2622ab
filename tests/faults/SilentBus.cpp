#include "tests/faults/SilentBus.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-id128.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace {

int answerSome(sd_bus_message* message, void* left, sd_bus_error* /*error*/) {
  if (--*static_cast<int*>(left) >= 0) {
    const bool asksForName = sd_bus_message_is_method_call(message, nullptr, "AddMatch") == 0;
    sd_bus_reply_method_return(message, asksForName ? "s" : "", ":1.7");
  }
  return 1;
}

}  // namespace

SilentBus::SilentBus() : listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  const std::string path = std::string(std::getenv("DBUS_SYSTEM_BUS_ADDRESS")).substr(10);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(listener, 8) != 0) {
    throw std::runtime_error("no bus at " + path);
  }
  const auto came = [](sd_event_source*, int socket, std::uint32_t, void* self) {
    static_cast<SilentBus*>(self)->take(accept4(socket, nullptr, nullptr, SOCK_CLOEXEC));
    return 0;
  };
  sd_event_add_io(loop.native(), nullptr, listener, EPOLLIN, came, this);
  thread = std::thread([this] { loop.run(); });
}

SilentBus::~SilentBus() {
  loop.stop();
  thread.join();
  close(listener);
}

void SilentBus::take(int socket) {
  sd_bus* end = nullptr;
  sd_bus_new(&end);
  int& left = answersLeft[std::min(connections.size(), answersLeft.size() - 1)];
  connections.emplace_back(end);
  sd_id128_t id{};
  sd_id128_randomize(&id);
  sd_bus_set_fd(end, socket, socket);
  sd_bus_set_server(end, 1, id);
  sd_bus_add_filter(end, nullptr, answerSome, &left);
  sd_bus_attach_event(end, loop.native(), SD_EVENT_PRIORITY_NORMAL);
  sd_bus_start(end);
}
