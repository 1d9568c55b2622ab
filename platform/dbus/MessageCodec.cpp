#include "platform/dbus/MessageCodec.h"

#include <cerrno>
#include <limits>
#include <string_view>
#include <type_traits>
#include <utility>

namespace dbus {

namespace {

int appendDict(sd_bus_message* message, const MessageDict& dict);

int appendVariant(sd_bus_message* message, const MessageValue& value) {
  if (const std::string* text = value.text()) {
    return sd_bus_message_append(message, "v", "s", text->c_str());
  }
  if (const bool* boolean = value.boolean()) {
    return sd_bus_message_append(message, "v", "b", static_cast<int>(*boolean));
  }
  if (const std::int64_t* integer = value.integer()) {
    return sd_bus_message_append(message, "v", "x", *integer);
  }
  int r = sd_bus_message_open_container(message, SD_BUS_TYPE_VARIANT, "a{sv}");
  if (r < 0) {
    return r;
  }
  r = appendDict(message, value.dictionary() ? *value.dictionary() : MessageDict());
  return r < 0 ? r : sd_bus_message_close_container(message);
}

int appendEntry(sd_bus_message* message, const MessageDict::Entry& entry) {
  int r = sd_bus_message_open_container(message, SD_BUS_TYPE_DICT_ENTRY, "sv");
  if (r < 0) {
    return r;
  }
  r = sd_bus_message_append(message, "s", entry.first.c_str());
  if (r < 0) {
    return r;
  }
  r = appendVariant(message, entry.second);
  return r < 0 ? r : sd_bus_message_close_container(message);
}

int appendDict(sd_bus_message* message, const MessageDict& dict) {
  int r = sd_bus_message_open_container(message, SD_BUS_TYPE_ARRAY, "{sv}");
  for (const MessageDict::Entry& entry : dict.entries()) {
    if (r >= 0 && !entry.second.isNull()) {
      r = appendEntry(message, entry);
    }
  }
  return r < 0 ? r : sd_bus_message_close_container(message);
}

/// Reads one value of the basic type that `Wire` stands for.
template <typename Wire>
int readInteger(sd_bus_message* message, char type, MessageValue& value) {
  Wire wire{};
  const int r = sd_bus_message_read_basic(message, type, &wire);
  if (r >= 0 && std::in_range<std::int64_t>(wire)) {
    value = static_cast<std::int64_t>(wire);
  }
  return r;
}

int readBoolean(sd_bus_message* message, MessageValue& value) {
  int boolean = 0;
  const int r = sd_bus_message_read_basic(message, SD_BUS_TYPE_BOOLEAN, &boolean);
  value = boolean != 0;
  return r;
}

int readString(sd_bus_message* message, std::string& text) {
  const char* chars = "";
  const int r = sd_bus_message_read_basic(message, SD_BUS_TYPE_STRING, &chars);
  if (r >= 0) {
    text = chars;
  }
  return r;
}

int readText(sd_bus_message* message, MessageValue& value) {
  std::string text;
  const int r = readString(message, text);
  value = std::move(text);
  return r;
}

int readContents(sd_bus_message* message, std::string_view type, MessageValue& value) {
  if (type == "a{sv}") {
    MessageDict dict;
    const int r = readDict(message, dict);
    value = std::move(dict);
    return r;
  }
  switch (type.size() == 1 ? type.front() : '\0') {
    case SD_BUS_TYPE_STRING:
      return readText(message, value);
    case SD_BUS_TYPE_BOOLEAN:
      return readBoolean(message, value);
    case SD_BUS_TYPE_BYTE:
      return readInteger<std::uint8_t>(message, SD_BUS_TYPE_BYTE, value);
    case SD_BUS_TYPE_INT16:
      return readInteger<std::int16_t>(message, SD_BUS_TYPE_INT16, value);
    case SD_BUS_TYPE_UINT16:
      return readInteger<std::uint16_t>(message, SD_BUS_TYPE_UINT16, value);
    case SD_BUS_TYPE_INT32:
      return readInteger<std::int32_t>(message, SD_BUS_TYPE_INT32, value);
    case SD_BUS_TYPE_UINT32:
      return readInteger<std::uint32_t>(message, SD_BUS_TYPE_UINT32, value);
    case SD_BUS_TYPE_INT64:
      return readInteger<std::int64_t>(message, SD_BUS_TYPE_INT64, value);
    case SD_BUS_TYPE_UINT64:
      return readInteger<std::uint64_t>(message, SD_BUS_TYPE_UINT64, value);
    default:
      return sd_bus_message_skip(message, std::string(type).c_str());
  }
}

}  // namespace

int readVariant(sd_bus_message* message, MessageValue& value) {
  char outer = 0;
  const char* contents = nullptr;
  int r = sd_bus_message_peek_type(message, &outer, &contents);
  if (r <= 0 || outer != SD_BUS_TYPE_VARIANT) {
    return r < 0 ? r : -ENXIO;
  }
  const std::string type = contents;
  r = sd_bus_message_enter_container(message, SD_BUS_TYPE_VARIANT, type.c_str());
  if (r < 0) {
    return r;
  }
  r = readContents(message, type, value);
  return r < 0 ? r : sd_bus_message_exit_container(message);
}

int readDict(sd_bus_message* message, MessageDict& dict) {
  int r = sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, "{sv}");
  if (r < 0) {
    return r;
  }
  while ((r = sd_bus_message_enter_container(message, SD_BUS_TYPE_DICT_ENTRY, "sv")) > 0) {
    std::string key;
    MessageValue value;
    if ((r = readString(message, key)) < 0 || (r = readVariant(message, value)) < 0 ||
        (r = sd_bus_message_exit_container(message)) < 0) {
      return r;
    }
    dict.set(key, std::move(value));
  }
  return r < 0 ? r : sd_bus_message_exit_container(message);
}

int makeCall(sd_bus* bus, const Peer& peer, const Command& command, MessagePtr& call) {
  sd_bus_message* message = nullptr;
  int r = sd_bus_message_new_method_call(bus, &message, peer.service, peer.path, peer.interface,
                                         "Perform");
  if (r < 0) {
    return r;
  }
  call.reset(message);
  if ((r = sd_bus_message_set_auto_start(message, 0)) < 0 ||
      (r = sd_bus_message_append(message, "s", command.client.c_str())) < 0) {
    return r;
  }
  if (peer.takesTask && (r = sd_bus_message_append(message, "i", command.task)) < 0) {
    return r;
  }
  r = sd_bus_message_append(message, "s", command.name.c_str());
  return r < 0 ? r : appendDict(message, command.request);
}

int readCall(sd_bus_message* call, const Peer& peer, Command& command) {
  int r = readString(call, command.client);
  if (r < 0) {
    return r;
  }
  if (peer.takesTask &&
      (r = sd_bus_message_read_basic(call, SD_BUS_TYPE_INT32, &command.task)) < 0) {
    return r;
  }
  r = readString(call, command.name);
  return r < 0 ? r : readDict(call, command.request);
}

int sendReply(sd_bus_message* call, const CommandResult& result, const MessageValue& reply) {
  sd_bus_message* message = nullptr;
  int r = sd_bus_message_new_method_return(call, &message);
  if (r < 0) {
    return r;
  }
  const MessagePtr owner(message);
  if ((r = sd_bus_message_append(message, "is", result.status, result.text.c_str())) < 0 ||
      (r = appendVariant(message, reply)) < 0) {
    return r;
  }
  return sd_bus_message_send(message);
}

CommandResult readReply(sd_bus_message* answer, const Peer& peer, MessageValue& reply) {
  reply = MessageValue();
  if (const sd_bus_error* error = sd_bus_message_get_error(answer)) {
    return resultOf(*error, peer);
  }
  CommandResult malformed{kst::kResultMalformedReply, "the service's reply is malformed"};
  if (sd_bus_message_has_signature(answer, "isv") <= 0) {
    return malformed;
  }
  CommandResult result;
  MessageValue value;
  if (sd_bus_message_read_basic(answer, SD_BUS_TYPE_INT32, &result.status) < 0 ||
      readString(answer, result.text) < 0 || readVariant(answer, value) < 0) {
    return malformed;
  }
  reply = std::move(value);
  return result;
}

bool isDisconnect(int error) {
  return error == ENOTCONN || error == ECONNRESET || error == EPIPE || error == ESHUTDOWN;
}

CommandResult resultOf(const sd_bus_error& error, const Peer& peer) {
  const auto isOneOf = [&](auto... names) { return (sd_bus_error_has_name(&error, names) || ...); };
  CommandResult result{kst::kResultCallFailed,
                       std::string(error.name) + ": " + (error.message ? error.message : "")};
  if (isOneOf(SD_BUS_ERROR_NAME_HAS_NO_OWNER, SD_BUS_ERROR_SERVICE_UNKNOWN)) {
    result.status = peer.notRunning;
  } else if (isDisconnect(sd_bus_error_get_errno(&error)) ||
             isOneOf(SD_BUS_ERROR_NO_REPLY, SD_BUS_ERROR_DISCONNECTED, SD_BUS_ERROR_TIMEOUT)) {
    result.status = kst::kResultReplyLost;
  } else if (isOneOf(SD_BUS_ERROR_ACCESS_DENIED, SD_BUS_ERROR_AUTH_FAILED)) {
    result.status = kst::kResultAccessDenied;
  }
  return result;
}

}  // namespace dbus
