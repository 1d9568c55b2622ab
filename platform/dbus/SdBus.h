#pragma once

#include <systemd/sd-bus.h>

#include <chrono>
#include <memory>
#include <string>

// Owners for what sd-bus hands out. None of it is safe to share between threads, its reference
// counts included.

namespace dbus {

struct BusDeleter {
  void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
};
struct MessageDeleter {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
struct SlotDeleter {
  void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};

using BusPtr = std::unique_ptr<sd_bus, BusDeleter>;
using MessagePtr = std::unique_ptr<sd_bus_message, MessageDeleter>;
using SlotPtr = std::unique_ptr<sd_bus_slot, SlotDeleter>;

/// Throws std::system_error, whose text begins with `step`, if the result is a negative errno.
void throwIfFailed(int result, const std::string& step);

// The bus itself, as a peer.
inline constexpr const char* kBusService = "org.freedesktop.DBus";
inline constexpr const char* kBusPath = "/org/freedesktop/DBus";

/// Whether the bus itself sent `message`. A match on the sender does not tell: sd-bus lets signals
/// of any client through to one that asks for a well-known name.
bool isFromBus(sd_bus_message* message);

/// Waits until the bus has taken the connection in; a negative errno when it has not by then.
/// Callbacks of the connection may run meanwhile; so for `flush`.
int awaitReady(sd_bus* bus, std::chrono::microseconds limit);

/// Waits until the bus has taken all that was sent; a negative errno when it has not by then.
int flush(sd_bus* bus, std::chrono::microseconds limit);

}  // namespace dbus
