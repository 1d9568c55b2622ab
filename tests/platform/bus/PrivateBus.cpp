#include "tests/platform/bus/PrivateBus.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

const char* const PrivateBus::kOpen =
    "<policy context=\"default\"><allow send_destination=\"*\"/>"
    "<allow receive_sender=\"*\"/><allow own=\"*\"/></policy>";

PrivateBus::PrivateBus(const std::string& policy) {
  const std::string address = "unix:path=" + (folder / "bus");
  std::ofstream(folder / "bus.conf")
      << "<busconfig><listen>" << address << "</listen>" << policy << "</busconfig>";
  // The bus serves whom its policy lets in.
  std::filesystem::permissions(folder.path, std::filesystem::perms(0711));
  setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
}

dbus::BusPtr PrivateBus::connect() {
  sd_bus* opened = nullptr;
  if (sd_bus_open_system(&opened) < 0) {
    throw std::runtime_error("no connection to the bus");
  }
  return dbus::BusPtr(opened);
}

void PrivateBus::start() {
  // A session of its own: a group that is orphaned while a member is stopped gets SIGHUP, all of
  // it.
  const std::string command =
      "exec setsid setpriv --pdeathsig KILL dbus-daemon --nofork --nosyslog --print-pid "
      "--config-file=" +
      (folder / "bus.conf");
  daemon = popen(command.c_str(), "re");
  char line[16] = "";
  // It prints its id once it listens.
  if (!daemon || !fgets(line, sizeof line, daemon)) {
    throw std::runtime_error("dbus-daemon does not start");
  }
  id = std::stoi(line);
}

void PrivateBus::freeze() const { ::kill(id, SIGSTOP); }

void PrivateBus::thaw() const { ::kill(id, SIGCONT); }

void PrivateBus::kill() {
  if (daemon) {
    ::kill(id, SIGKILL);
    pclose(daemon);
    daemon = nullptr;
  }
}
