#pragma once

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>

#include "platform/dbus/SdBus.h"
#include "tests/support/Program.h"
#include "tests/support/TemporaryDirectory.h"

/// A message bus of the test's own, which DBUS_SYSTEM_BUS_ADDRESS names as long as this lives. It
/// can go away and come back.
class PrivateBus {
 public:
  /// Lets the test's own user do everything.
  static constexpr const char* kOpen =
      "<policy context=\"default\"><allow send_destination=\"*\"/>"
      "<allow receive_sender=\"*\"/><allow own=\"*\"/></policy>";

  /// Names the bus without starting it. `policy` is what the configuration says beside the address.
  explicit PrivateBus(const std::string& policy = kOpen) {
    const std::string address = "unix:path=" + (folder / "bus");
    std::ofstream(folder / "bus.conf")
        << "<busconfig><listen>" << address << "</listen>" << policy << "</busconfig>";
    // The bus serves whom its policy lets in.
    std::filesystem::permissions(folder.path, std::filesystem::perms(0711));
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
  }

  /// A connection to the bus.
  static dbus::BusPtr connect() {
    sd_bus* opened = nullptr;
    if (sd_bus_open_system(&opened) < 0) {
      throw std::runtime_error("no connection to the bus");
    }
    return dbus::BusPtr(opened);
  }

  /// Starts the bus and waits until it takes connections.
  void start() {
    // A session of its own: a group that is orphaned while a member is stopped gets SIGHUP, all of
    // it. It prints its id once it listens.
    daemon.emplace(Words{"setsid", "setpriv", "--pdeathsig", "KILL", "dbus-daemon", "--nofork",
                         "--nosyslog", "--print-pid", "--config-file=" + (folder / "bus.conf")});
    daemon->readUntil("\n");
  }

  /// Stops the bus in its tracks: it still takes connections, but answers nothing.
  void freeze() const { ::kill(daemon->id(), SIGSTOP); }

  void thaw() const { ::kill(daemon->id(), SIGCONT); }

  /// Kills the bus: every connection to it breaks.
  void kill() { daemon.reset(); }

 private:
  const TemporaryDirectory folder;
  std::optional<Program> daemon;
};

/// Sends a signal to one connection alone, whoever it should come from.
template <typename... Values>
void forge(const dbus::BusPtr& bus, const char* to, const char* path, const char* interface,
           const char* member, const char* types, Values... values) {
  sd_bus_message* made = nullptr;
  sd_bus_message_new_signal(bus.get(), &made, path, interface, member);
  const dbus::MessagePtr signal(made);
  sd_bus_message_append(made, types, values...);
  sd_bus_send_to(bus.get(), made, to, nullptr);
}
