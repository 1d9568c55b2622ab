#include "platform/dbus/SdBus.h"

#include <cerrno>
#include <cstdint>
#include <string_view>
#include <system_error>

namespace dbus {

namespace {

/// Serves the connection until `state` is other than 0, which is returned.
template <typename State>
int processUntil(sd_bus* bus, std::chrono::microseconds limit, State state) {
  using std::chrono::steady_clock;
  const steady_clock::time_point deadline = steady_clock::now() + limit;
  for (;;) {
    int r = state();
    if (r != 0) {
      return r;
    }
    const auto left = std::chrono::ceil<std::chrono::microseconds>(deadline - steady_clock::now());
    if (left.count() <= 0) {
      return -ETIMEDOUT;
    }
    r = sd_bus_process(bus, nullptr);
    if (r == 0) {
      r = sd_bus_wait(bus, static_cast<std::uint64_t>(left.count()));
    }
    if (r < 0 && r != -EINTR) {
      return r;
    }
  }
}

}  // namespace

void throwIfFailed(int result, const std::string& step) {
  if (result < 0) {
    throw std::system_error(-result, std::generic_category(), step);
  }
}

bool isFromBus(sd_bus_message* message) {
  const char* sender = sd_bus_message_get_sender(message);
  return sender && sender == std::string_view(kBusService);
}

int awaitReady(sd_bus* bus, std::chrono::microseconds limit) {
  return processUntil(bus, limit, [bus] { return sd_bus_is_ready(bus); });
}

int flush(sd_bus* bus, std::chrono::microseconds limit) {
  return processUntil(bus, limit, [bus] {
    std::uint64_t queued = 0;
    const int r = sd_bus_get_n_queued_write(bus, &queued);
    return r < 0 ? r : static_cast<int>(queued == 0);
  });
}

}  // namespace dbus
