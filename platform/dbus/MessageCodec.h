#pragma once

#include <cstddef>
#include <optional>

#include "platform/dbus/Command.h"
#include "platform/dbus/Peer.h"
#include "platform/dbus/SdBus.h"
#include "platform/message/CommandResult.h"
#include "platform/message/MessageDict.h"

// How commands, results and messages stand on the wire. Functions that return an int return a
// negative errno for failure, as sd-bus does.

namespace dbus {

/// What a request may bring: entries, those of nested dictionaries included, and bytes of text in
/// client, command, keys and values together. A value of a kind that messages do not have counts
/// with its texts, and one byte more for each of its parts.
inline constexpr std::size_t kMaximumRequestEntries = 64;
inline constexpr std::size_t kMaximumRequestText = std::size_t{64} * 1024;

/// Makes the message of a call. It never starts a service that is not running.
int makeCall(sd_bus* bus, const Peer& peer, const Command& command, MessagePtr& call);

/// Reads a call that has the signature of the peer's `Perform`. Reads no further than a request may
/// be large; what is larger, or malformed, is kResultInvalidRequest with a text that says why, and
/// `command` is then of no use.
CommandResult readCall(sd_bus_message* call, const Peer& peer, Command& command);

/// Fills in and sends `reply`, the empty reply to a call. A null value travels as an empty
/// dictionary; bytes of the result's text that no message can carry as '?'.
int sendReply(sd_bus_message* reply, const CommandResult& result, const MessageValue& value);

/// Reads the answer to a call, be it a reply or an error. `reply` is nothing unless there was a
/// well-formed one. Only the bus is believed that the service is not there.
CommandResult readReply(sd_bus_message* answer, const Peer& peer,
                        std::optional<MessageValue>& reply);

/// What an error of the bus means to the caller of `peer`.
CommandResult resultOf(const sd_bus_error& error, const Peer& peer);

/// Whether an errno says that the connection to the bus is gone.
bool isDisconnect(int error);

/// Reads a variant: a value of a kind that messages do not have becomes null, and integers of all
/// widths become 64-bit ones.
int readVariant(sd_bus_message* message, MessageValue& value);

/// Reads a dictionary of variants.
int readDict(sd_bus_message* message, MessageDict& dict);

}  // namespace dbus
