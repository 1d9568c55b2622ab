#include "tests/platform/bus/ScriptedService.h"

#include <stdexcept>
#include <utility>

ScriptedService::ScriptedService(const dbus::Peer& ownPeer, Script script, const std::string& state)
    : peer(ownPeer), perform(std::move(script)), serverState(state) {
  sd_bus* opened = nullptr;
  int r = sd_bus_open_system(&opened);
  bus.reset(opened);
  r = r < 0 ? r : sd_bus_attach_event(opened, loop.native(), SD_EVENT_PRIORITY_NORMAL);
  r = r < 0 ? r : sd_bus_add_object(opened, nullptr, peer.path, onMessage, this);
  r = r < 0 ? r : sd_bus_request_name(opened, peer.service, 0);
  if (r < 0) {
    throw std::runtime_error("the scripted service gets no place on the bus");
  }
  thread = std::thread([this] { loop.run(); });
}

ScriptedService::~ScriptedService() {
  loop.stop();
  thread.join();
}

void ScriptedService::setState(const std::string& state) {
  loop.post([this, state] {
    serverState = state;
    sd_bus_emit_signal(bus.get(), peer.path, "org.freedesktop.DBus.Properties", "PropertiesChanged",
                       "sa{sv}as", peer.interface, 1, dbus::kServerStateProperty, "s",
                       state.c_str(), 0);
  });
}

int ScriptedService::onMessage(sd_bus_message* message, void* self, sd_bus_error* /*error*/) {
  auto& service = *static_cast<ScriptedService*>(self);
  if (sd_bus_message_is_method_call(message, service.peer.interface, "Perform") > 0) {
    service.perform(message);
    return 1;
  }
  if (sd_bus_message_is_method_call(message, "org.freedesktop.DBus.Properties", "Get") > 0) {
    return sd_bus_reply_method_return(message, "v", "s", service.serverState.c_str());
  }
  return 0;
}
