#pragma once

#include <systemd/sd-bus.h>

#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "platform/dbus/EventLoop.h"
#include "platform/dbus/Peer.h"
#include "platform/dbus/SdBus.h"

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
  ScriptedService(const dbus::Peer& ownPeer, Script script, const std::string& state = "Started",
                  Script tell = {});
  ScriptedService(const ScriptedService&) = delete;
  ScriptedService& operator=(const ScriptedService&) = delete;
  ~ScriptedService();

  /// Announces a server state, or, without one, that it has changed. Changes come out in order.
  void setState(const std::optional<std::string>& state);

  /// Runs `work` on the service's thread.
  void run(std::function<void()> work) { loop.post(std::move(work)); }

 private:
  static int onMessage(sd_bus_message* message, void* self, sd_bus_error* error);

  const dbus::Peer peer;
  const Script perform;
  const Script tellState;
  std::string serverState;  // on the service's thread
  dbus::EventLoop loop;
  dbus::BusPtr bus;
  std::thread thread;
};
