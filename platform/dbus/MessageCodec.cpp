#include "platform/dbus/MessageCodec.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "platform/message/Utf8.h"

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

/// What a message may still bring: readers take from it what they find.
class Allowance {
 public:
  Allowance() = default;
  Allowance(std::size_t entryLimit, std::size_t textLimit) : entries(entryLimit), text(textLimit) {}

  int takeEntry() { return take(entries, 1) ? 0 : kTooManyEntries; }
  int takeText(std::size_t bytes) { return take(text, bytes) ? 0 : kTooMuchText; }

  static constexpr int kTooManyEntries = -E2BIG;
  static constexpr int kTooMuchText = -EMSGSIZE;

 private:
  static bool take(std::size_t& left, std::size_t count) {
    const bool enough = count <= left;
    left -= enough ? count : 0;
    return enough;
  }

  std::size_t entries = SIZE_MAX;
  std::size_t text = SIZE_MAX;  // bytes
};

int readDict(sd_bus_message* message, MessageDict& dict, Allowance& allowance);

/// Reads a text, or another type that is one on the wire.
int readString(sd_bus_message* message, std::string& text, Allowance& allowance,
               char type = SD_BUS_TYPE_STRING) {
  const char* chars = "";
  int r = sd_bus_message_read_basic(message, type, &chars);
  if (r < 0) {
    return r;
  }
  const std::string_view found = chars;
  r = allowance.takeText(found.size());
  if (r >= 0) {
    text = found;
  }
  return r;
}

int readText(sd_bus_message* message, MessageValue& value, Allowance& allowance) {
  std::string text;
  const int r = readString(message, text, allowance);
  value = std::move(text);
  return r;
}

/// Skips one value, part by part, since an array may have millions of them; 0 when there is none.
int skipValue(sd_bus_message* message, Allowance& allowance) {
  char type = 0;
  const char* peeked = nullptr;
  int r = sd_bus_message_peek_type(message, &type, &peeked);
  if (r <= 0) {
    return r;
  }
  r = allowance.takeText(1);
  if (r < 0) {
    return r;
  }
  if (type == SD_BUS_TYPE_STRING || type == SD_BUS_TYPE_OBJECT_PATH ||
      type == SD_BUS_TYPE_SIGNATURE) {
    std::string text;
    r = readString(message, text, allowance, type);
    return r < 0 ? r : 1;
  }
  if (!peeked) {
    return sd_bus_message_skip(message, std::string(1, type).c_str());
  }
  const std::string contents = peeked;
  r = sd_bus_message_enter_container(message, type, contents.c_str());
  while (r > 0) {
    r = skipValue(message, allowance);
  }
  r = r < 0 ? r : sd_bus_message_exit_container(message);
  return r < 0 ? r : 1;
}

int readContents(sd_bus_message* message, std::string_view type, MessageValue& value,
                 Allowance& allowance) {
  if (type == "a{sv}") {
    MessageDict dict;
    const int r = readDict(message, dict, allowance);
    value = std::move(dict);
    return r;
  }
  switch (type.size() == 1 ? type.front() : '\0') {
    case SD_BUS_TYPE_STRING:
      return readText(message, value, allowance);
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
      return skipValue(message, allowance);
  }
}

int readVariant(sd_bus_message* message, MessageValue& value, Allowance& allowance) {
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
  r = readContents(message, type, value, allowance);
  return r < 0 ? r : sd_bus_message_exit_container(message);
}

int readDict(sd_bus_message* message, MessageDict& dict, Allowance& allowance) {
  int r = sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, "{sv}");
  if (r < 0) {
    return r;
  }
  while ((r = sd_bus_message_enter_container(message, SD_BUS_TYPE_DICT_ENTRY, "sv")) > 0) {
    std::string key;
    MessageValue value;
    if ((r = allowance.takeEntry()) < 0 || (r = readString(message, key, allowance)) < 0 ||
        (r = readVariant(message, value, allowance)) < 0 ||
        (r = sd_bus_message_exit_container(message)) < 0) {
      return r;
    }
    dict.set(key, std::move(value));
  }
  return r < 0 ? r : sd_bus_message_exit_container(message);
}

int readCommand(sd_bus_message* call, const Peer& peer, Command& command, Allowance& allowance) {
  int r = readString(call, command.client, allowance);
  if (r < 0) {
    return r;
  }
  if (peer.takesTask &&
      (r = sd_bus_message_read_basic(call, SD_BUS_TYPE_INT32, &command.task)) < 0) {
    return r;
  }
  r = readString(call, command.name, allowance);
  return r < 0 ? r : readDict(call, command.request, allowance);
}

/// `text` as a message can carry it.
std::string carriable(std::string text) {
  const auto isForeign = [](char byte) { return byte == '\0' || (byte & 0x80) != 0; };
  if (!isMessageText(text)) {
    std::replace_if(text.begin(), text.end(), isForeign, '?');
  }
  return text;
}

}  // namespace

int readVariant(sd_bus_message* message, MessageValue& value) {
  Allowance everything;
  return readVariant(message, value, everything);
}

int readDict(sd_bus_message* message, MessageDict& dict) {
  Allowance everything;
  return readDict(message, dict, everything);
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

CommandResult readCall(sd_bus_message* call, const Peer& peer, Command& command) {
  Allowance allowance(kMaximumRequestEntries, kMaximumRequestText);
  const int r = readCommand(call, peer, command, allowance);
  if (r >= 0) {
    return {};
  }
  const std::string why =
      r == Allowance::kTooManyEntries
          ? "has more than " + std::to_string(kMaximumRequestEntries) + " entries"
      : r == Allowance::kTooMuchText
          ? "has more than " + std::to_string(kMaximumRequestText) + " bytes of text"
          : "cannot be read: " + std::generic_category().message(-r);
  return {kst::kResultInvalidRequest, "the request " + why};
}

int sendReply(sd_bus_message* reply, const CommandResult& result, const MessageValue& value) {
  int r = sd_bus_message_append(reply, "is", result.status, carriable(result.text).c_str());
  if (r < 0) {
    return r;
  }
  r = appendVariant(reply, value);
  return r < 0 ? r : sd_bus_message_send(reply);
}

CommandResult readReply(sd_bus_message* answer, const Peer& peer,
                        std::optional<MessageValue>& reply) {
  reply.reset();
  if (const sd_bus_error* error = sd_bus_message_get_error(answer)) {
    CommandResult result = resultOf(*error, peer);
    if (result.status == peer.notRunning && !isFromBus(answer)) {
      result.status = kst::kResultCallFailed;
    }
    return result;
  }
  CommandResult malformed{kst::kResultMalformedReply, "the service's reply is malformed"};
  if (sd_bus_message_has_signature(answer, "isv") <= 0) {
    return malformed;
  }
  CommandResult result;
  MessageValue value;
  Allowance everything;
  if (sd_bus_message_read_basic(answer, SD_BUS_TYPE_INT32, &result.status) < 0 ||
      readString(answer, result.text, everything) < 0 ||
      readVariant(answer, value, everything) < 0) {
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
