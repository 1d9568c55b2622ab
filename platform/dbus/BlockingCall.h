#pragma once

#include <chrono>
#include <optional>

#include "platform/dbus/Command.h"
#include "platform/dbus/Peer.h"
#include "platform/message/CommandResult.h"

namespace dbus {

/// Sends one command on a connection of its own and waits for the reply, at most `limit` for each
/// of connecting and the call. `reply` is nothing unless there was a well-formed one. Callable from
/// any thread.
CommandResult callBlocking(const Peer& peer, const Command& command,
                           std::chrono::microseconds limit, std::optional<MessageValue>& reply);

}  // namespace dbus
