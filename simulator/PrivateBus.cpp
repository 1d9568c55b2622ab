#include "simulator/PrivateBus.h"

#include <poll.h>

#include <fstream>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "simulator/Pipe.h"
#include "support/FileOperations.h"

namespace simulator {
namespace {

constexpr int kStartLimit = 10'000;  // milliseconds

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

std::string writeConfiguration(const std::string& folder, const std::string& address) {
  std::string path = folder + "/bus.conf";
  std::ofstream(path)
      << R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <listen>)"
      << address << R"(</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
)";
  return path;
}

std::string contentOf(const std::string& path) {
  std::vector<char> content;
  kst::support::readWholeFile(path, content);
  return {content.begin(), content.end()};
}

/// Starts the bus, which writes its address into a pipe once it listens.
ChildProcess startDaemon(const TemporaryFolder& folder, const std::string& address) {
  Pipe ready;
  // The daemon warns of limits that it cannot raise, which says nothing to the simulator's user.
  const std::string errorFile = folder.path() + "/bus.log";
  ChildProcess daemon({.command = {"dbus-daemon", "--nofork", "--nopidfile", "--nosyslog",
                                   "--config-file=" + writeConfiguration(folder.path(), address),
                                   "--print-address=" + std::to_string(ready.writer.get())},
                       .background = true,
                       .errorFile = errorFile,
                       .descriptors = {folder.lifeline(), ready.writer.get()}});
  // So that the end of the daemon is the end of the pipe.
  ready.writer.close();
  pollfd output{.fd = ready.reader.get(), .events = POLLIN, .revents = 0};
  if (poll(&output, 1, kStartLimit) <= 0 || (output.revents & POLLIN) == 0) {
    throw std::runtime_error("the message bus did not start: " + contentOf(errorFile));
  }
  return daemon;
}

}  // namespace

PrivateBus::PrivateBus(const TemporaryFolder& folder)
    : busAddress(addressOf(folder.path() + "/bus")), daemon(startDaemon(folder, busAddress)) {}

}  // namespace simulator
