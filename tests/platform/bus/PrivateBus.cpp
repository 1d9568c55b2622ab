#include "tests/platform/bus/PrivateBus.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

const char* const PrivateBus::kOpen =
    "<policy context=\"default\"><allow send_destination=\"*\"/>"
    "<allow receive_sender=\"*\"/><allow own=\"*\"/></policy>";

PrivateBus::PrivateBus(const std::string& policy) {
  std::string pattern = std::filesystem::temp_directory_path() / "kst-bus-XXXXXX";
  if (!mkdtemp(pattern.data())) {
    throw std::runtime_error("no temporary folder");
  }
  folder = pattern;
  const std::string address = "unix:path=" + (folder / "bus").string();
  std::ofstream(folder / "bus.conf")
      << "<busconfig><listen>" << address << "</listen>" << policy << "</busconfig>";
  // The bus serves whom its policy lets in.
  std::filesystem::permissions(folder, std::filesystem::perms::owner_all |
                                           std::filesystem::perms::group_exec |
                                           std::filesystem::perms::others_exec);
  setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
}

PrivateBus::~PrivateBus() {
  kill();
  std::filesystem::remove_all(folder);
}

void PrivateBus::start() {
  std::array<int, 2> ready{};
  if (pipe(ready.data()) != 0) {
    throw std::runtime_error("no pipe");
  }
  daemon = fork();
  if (daemon == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // A group of its own: one that is orphaned while a member is stopped gets SIGHUP, all of it.
    setpgid(0, 0);
    const std::string config = "--config-file=" + (folder / "bus.conf").string();
    const std::string printAddress = "--print-address=" + std::to_string(ready[1]);
    execlp("dbus-daemon", "dbus-daemon", "--nofork", "--nosyslog", config.c_str(),
           printAddress.c_str(), nullptr);
    _exit(127);
  }
  close(ready[1]);
  char byte = 0;
  const bool listens = read(ready[0], &byte, 1) == 1;  // it prints the address once it listens
  close(ready[0]);
  if (!listens) {
    throw std::runtime_error("dbus-daemon does not start");
  }
}

void PrivateBus::freeze() const { ::kill(daemon, SIGSTOP); }

void PrivateBus::thaw() const { ::kill(daemon, SIGCONT); }

void PrivateBus::kill() {
  if (daemon > 0) {
    ::kill(daemon, SIGKILL);
    waitpid(daemon, nullptr, 0);
    daemon = -1;
  }
}
