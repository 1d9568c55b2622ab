#include "tests/platform/bus/ScriptedService.h"

#include <stdexcept>
#include <utility>

#include "tests/platform/bus/PrivateBus.h"

ScriptedService::ScriptedService(const dbus::Peer& ownPeer, Script script, const std::string& state,
                                 Script tell)
    : peer(ownPeer),
      perform(std::move(script)),
      tellState(std::move(tell)),
      serverState(state),
      bus(PrivateBus::connect()) {
  sd_bus_attach_event(bus.get(), loop.native(), SD_EVENT_PRIORITY_NORMAL);
  sd_bus_add_object(bus.get(), nullptr, peer.path, onMessage, this);
  if (sd_bus_request_name(bus.get(), peer.service,
                          SD_BUS_NAME_ALLOW_REPLACEMENT | SD_BUS_NAME_REPLACE_EXISTING) < 0) {
    throw std::runtime_error("the scripted service gets no name on the bus");
  }
  thread = std::thread([this] { loop.run(); });
}

ScriptedService::~ScriptedService() {
  loop.stop();
  thread.join();
}

void ScriptedService::setState(const std::optional<std::string>& state) {
  loop.post([this, state] {
    serverState = state.value_or(serverState);
    sd_bus_message* made = nullptr;
    sd_bus_message_new_signal(bus.get(), &made, peer.path, "org.freedesktop.DBus.Properties",
                              "PropertiesChanged");
    const dbus::MessagePtr signal(made);
    sd_bus_message_append(made, "sa{sv}as", peer.interface, 1,
                          state ? dbus::kServerStateProperty : "Other", "s", serverState.c_str(), 2,
                          "Another", state ? "Third" : dbus::kServerStateProperty);
    sd_bus_send(bus.get(), made, nullptr);
  });
}

int ScriptedService::onMessage(sd_bus_message* message, void* self, sd_bus_error* /*error*/) {
  auto& service = *static_cast<ScriptedService*>(self);
  if (sd_bus_message_is_method_call(message, service.peer.interface, "Perform") > 0) {
    service.perform(message);
    return 1;
  }
  if (sd_bus_message_is_method_call(message, "org.freedesktop.DBus.Properties", "Get") > 0) {
    if (service.tellState) {
      service.tellState(message);
      return 1;
    }
    return sd_bus_reply_method_return(message, "v", "s", service.serverState.c_str());
  }
  return 0;
}
