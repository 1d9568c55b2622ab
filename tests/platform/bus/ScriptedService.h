#pragma once

#include <systemd/sd-bus.h>

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "platform/dbus/EventLoop.h"
#include "platform/dbus/Peer.h"
#include "platform/dbus/SdBus.h"
#include "tests/platform/bus/PrivateBus.h"

/// A service that answers `Perform` in any way that the wire allows, wrong ones included. Takes the
/// name from another one; goes off the bus, without a word, when destroyed.
class ScriptedService {
 public:
  /// Answers a call, or leaves it unanswered; called on the service's thread.
  using Script = std::function<void(sd_bus_message* call)>;

  /// Answers with these values.
  template <typename... Values>
  static Script reply(const char* types, Values... values) {
    return [=](sd_bus_message* call) { sd_bus_reply_method_return(call, types, values...); };
  }

  /// `tell` answers who asks for the state, instead of this.
  ScriptedService(const dbus::Peer& ownPeer, Script script, std::string state = "Started",
                  Script tell = {})
      : peer(ownPeer),
        perform(std::move(script)),
        tellState(std::move(tell)),
        serverState(std::move(state)),
        bus(PrivateBus::connect()) {
    sd_bus_attach_event(bus.get(), loop.native(), SD_EVENT_PRIORITY_NORMAL);
    sd_bus_add_object(bus.get(), nullptr, peer.path, onMessage, this);
    if (sd_bus_request_name(bus.get(), peer.service,
                            SD_BUS_NAME_ALLOW_REPLACEMENT | SD_BUS_NAME_REPLACE_EXISTING) < 0) {
      throw std::runtime_error("the scripted service gets no name on the bus");
    }
    thread = std::thread([this] { loop.run(); });
  }
  ScriptedService(const ScriptedService&) = delete;
  ScriptedService& operator=(const ScriptedService&) = delete;
  ~ScriptedService() {
    loop.stop();
    thread.join();
  }

  /// Announces a server state, or, without one, that it has changed. Changes come out in order.
  void setState(const std::optional<std::string>& state) {
    loop.post([this, state] {
      serverState = state.value_or(serverState);
      sd_bus_emit_signal(bus.get(), peer.path, "org.freedesktop.DBus.Properties",
                         "PropertiesChanged", "sa{sv}as", peer.interface, 1,
                         state ? dbus::kServerStateProperty : "Other", "s", serverState.c_str(), 2,
                         "Another", state ? "Third" : dbus::kServerStateProperty);
    });
  }

  /// Runs `work` on the service's thread.
  void run(std::function<void()> work) { loop.post(std::move(work)); }

 private:
  static int onMessage(sd_bus_message* message, void* self, sd_bus_error* /*error*/) {
    auto& service = *static_cast<ScriptedService*>(self);
    if (sd_bus_message_is_method_call(message, service.peer.interface, "Perform") > 0) {
      service.perform(message);
      return 1;
    }
    if (sd_bus_message_is_method_call(message, "org.freedesktop.DBus.Properties", "Get") == 0) {
      return 0;
    }
    if (service.tellState) {
      service.tellState(message);
      return 1;
    }
    return sd_bus_reply_method_return(message, "v", "s", service.serverState.c_str());
  }

  const dbus::Peer peer;
  const Script perform;
  const Script tellState;
  std::string serverState;  // on the service's thread
  dbus::EventLoop loop;
  dbus::BusPtr bus;
  std::thread thread;
};
