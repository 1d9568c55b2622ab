#include "platform/dbus/BlockingCall.h"

#include <cstdint>
#include <system_error>

#include "platform/dbus/MessageCodec.h"
#include "platform/dbus/SdBus.h"

namespace dbus {

namespace {

/// An sd_bus_error that frees what it holds.
class BusError {
 public:
  BusError() = default;
  BusError(const BusError&) = delete;
  BusError& operator=(const BusError&) = delete;
  ~BusError() { sd_bus_error_free(&error); }

  sd_bus_error error = {};  // SD_BUS_ERROR_NULL is no C++
};

CommandResult noBus(const Peer& peer, int r) {
  return {peer.notRunning, "no bus: " + std::generic_category().message(-r)};
}

}  // namespace

CommandResult callBlocking(const Peer& peer, const Command& command,
                           std::chrono::microseconds limit, std::optional<MessageValue>& reply) {
  reply.reset();
  sd_bus* opened = nullptr;
  if (const int r = sd_bus_open_system(&opened); r < 0) {
    return noBus(peer, r);
  }
  const BusPtr bus(opened);
  if (const int r = awaitReady(opened, limit); r < 0) {
    return noBus(peer, r);
  }
  MessagePtr call;
  if (const int r = makeCall(opened, peer, command, call); r < 0) {
    return {kst::kResultCallFailed, std::generic_category().message(-r)};
  }
  BusError failure;
  sd_bus_message* answer = nullptr;
  if (sd_bus_call(opened, call.get(), static_cast<std::uint64_t>(limit.count()), &failure.error,
                  &answer) < 0) {
    return resultOf(failure.error, peer);
  }
  const MessagePtr owner(answer);
  return readReply(answer, peer, reply);
}

}  // namespace dbus
