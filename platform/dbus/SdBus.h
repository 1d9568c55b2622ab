#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <memory>

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
struct EventSourceDeleter {
  void operator()(sd_event_source* source) const { sd_event_source_unref(source); }
};

using BusPtr = std::unique_ptr<sd_bus, BusDeleter>;
using EventSourcePtr = std::unique_ptr<sd_event_source, EventSourceDeleter>;
using MessagePtr = std::unique_ptr<sd_bus_message, MessageDeleter>;
using SlotPtr = std::unique_ptr<sd_bus_slot, SlotDeleter>;

}  // namespace dbus
