#pragma once

#include <chrono>
#include <string>
#include <thread>

#include "tests/platform/bus/ScriptedService.h"

/// What the tool takes an answer for.
enum class Meaning { kText, kNoText, kFailure };

/// A way to answer a call with `text` under `key`, or only to look like that.
struct Shape {
  const char* name;
  Meaning meaning;
  void (*answer)(sd_bus_message* call, const char* key, const char* text);
};

inline constexpr auto kReply = sd_bus_reply_method_return;

inline constexpr Shape kGood = {"good", Meaning::kText, [](auto* call, auto* key, auto* text) {
                                  kReply(call, "isv", 0, "", "a{sv}", 1, key, "s", text);
                                }};
inline constexpr Shape kNever = {"never", Meaning::kFailure, [](auto*, auto*, auto*) {}};
inline constexpr Shape kShapes[] = {
    kGood,
    {"late", Meaning::kText,
     [](auto* call, auto* key, auto* text) {
       std::this_thread::sleep_for(std::chrono::milliseconds(100));
       kGood.answer(call, key, text);
     }},
    {"twice", Meaning::kText,
     [](auto* call, auto* key, auto* text) {
       kGood.answer(call, key, text);
       kGood.answer(call, key, text);
     }},
    {"huge", Meaning::kText,
     [](auto* call, auto* key, auto* text) {
       const std::string much(8'000'000, 'x');
       kReply(call, "isv", 0, "", "a{sv}", 2, "much", "s", much.c_str(), key, "s", text);
     }},
    {"nested", Meaning::kText,
     [](auto* call, auto* key, auto* text) {
       kReply(call, "isv", 0, "", "a{sv}", 2, "deep", "v", "v", "v", "v", "v", "v", "v", "v", "v",
              "v", "v", "v", "v", "v", "v", "v", "v", "v", "s", "bottom", key, "s", text);
     }},
    {"number", Meaning::kNoText,
     [](auto* call, auto* key, auto*) { kReply(call, "isv", 0, "", "a{sv}", 1, key, "i", 1); }},
    {"error", Meaning::kFailure,
     [](auto* call, auto*, auto*) { sd_bus_reply_method_errorf(call, "kst.Broken", "broken"); }},
    {"malformed", Meaning::kFailure,
     [](auto* call, auto*, auto* text) { kReply(call, "sv", "0", "s", text); }},
};

/// How a manager answers requests to dump, and those for a property.
struct Manner {
  Shape dump = kGood;
  Shape property = kGood;
};

/// Tells everybody on the bus, in the bus's and the manager's stead, that the manager is no more.
inline void forgeSignals() {
  sd_bus* opened = nullptr;
  sd_bus_open_system(&opened);
  const dbus::BusPtr bus(opened);
  const auto send = [opened](const char* to, const char* path, const char* interface,
                             const char* signal, const char* types, auto... values) {
    sd_bus_message* made = nullptr;
    sd_bus_message_new_signal(opened, &made, path, interface, signal);
    const dbus::MessagePtr message(made);
    sd_bus_message_append(made, types, values...);
    sd_bus_send_to(opened, made, to, nullptr);
  };
  char** names = nullptr;
  sd_bus_list_names(opened, &names, nullptr);
  for (char** name = names; name != nullptr && *name != nullptr; free(*name++)) {
    send(*name, dbus::kBusPath, dbus::kBusService, "NameOwnerChanged", "sss",
         dbus::kManager.service, *name, "");
    send(*name, dbus::kManager.path, "org.freedesktop.DBus.Properties", "PropertiesChanged",
         "sa{sv}as", dbus::kManager.interface, 1, dbus::kServerStateProperty, "s", "Stopped", 0);
  }
  free(names);
  sd_bus_flush(opened);
}
