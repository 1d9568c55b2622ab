#include "simulator/PrivateBus.h"

#include <poll.h>

#include <chrono>
#include <stdexcept>
#include <string_view>

#include "simulator/Pipe.h"
#include "simulator/Signals.h"

namespace simulator {
namespace {

using Clock = ChildProcess::Clock;

constexpr std::chrono::seconds kStartLimit{10};
constexpr std::chrono::milliseconds kLookInterval{10};

/// The address of a socket, with the bytes escaped that an address cannot hold as they are.
std::string addressOf(const std::string& socket) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  constexpr std::string_view kPlain =
      "-_/.0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  std::string address = "unix:path=";
  for (const char character : socket) {
    const auto byte = static_cast<unsigned char>(character);
    if (kPlain.find(character) != std::string_view::npos) {
      address += character;
    } else {
      address += {'%', kDigits[byte / 16], kDigits[byte % 16]};
    }
  }
  return address;
}

std::string configurationFor(const std::string& address) {
  return R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <listen>)" +
         address + R"(</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
)";
}

/// Starts the bus, which writes its address into a pipe once it listens.
ChildProcess startDaemon(const TemporaryFolder& folder, const std::string& address) {
  Pipe ready;
  // The daemon warns of limits that it cannot raise, which says nothing to the simulator's user.
  ChildProcess daemon(
      {.command = {"dbus-daemon", "--nofork", "--nopidfile", "--nosyslog",
                   "--config-file=" + folder.addFile("bus.conf", configurationFor(address)),
                   "--print-address=" + std::to_string(ready.writer.get())},
       .background = true,
       .errorFile = folder.path() + "/bus.log",
       .descriptors = {folder.lifeline(), ready.writer.get()}});
  // So that the end of the daemon is the end of the pipe.
  ready.writer.close();
  pollfd output{.fd = ready.reader.get(), .events = POLLIN, .revents = 0};
  const Clock::time_point deadline = Clock::now() + kStartLimit;
  while (poll(&output, 1, static_cast<int>(kLookInterval.count())) <= 0 &&
         Clock::now() < deadline) {
    awaitInterruption(std::chrono::milliseconds(0));
  }
  if ((output.revents & POLLIN) == 0) {
    throw std::runtime_error(daemon.withErrors("the message bus did not start"));
  }
  return daemon;
}

}  // namespace

PrivateBus::PrivateBus(const TemporaryFolder& folder)
    : busAddress(addressOf(folder.path() + "/bus")), daemon(startDaemon(folder, busAddress)) {}

}  // namespace simulator
