// Messages of every kind as they come from the bus: what is read is what was put in.

#include <fuzzer/FuzzedDataProvider.h>
#include <sys/socket.h>

#include <array>
#include <optional>
#include <string_view>
#include <utility>

#include "platform/dbus/MessageCodec.h"
#include "tests/fuzz/Check.h"

namespace {

void must(int result) { check(result >= 0, "the bus takes it"); }

bool isOneOf(std::string_view types, char type) { return types.find(type) != types.npos; }

/// Fills a message, and knows what a reader has to make of it.
class Writer {
 public:
  Writer(FuzzedDataProvider& source, sd_bus* bus) : data(source) {
    sd_bus_message* made = nullptr;
    must(sd_bus_message_new_signal(bus, &made, "/a", "a.b", "c"));
    message.reset(made);
  }

  MessageValue variant() {
    static constexpr std::array<std::string_view, 22> kTypes{
        "s", "b", "x", "a{sv}", "y",  "n",  "q",  "i",     "u",     "t",      "d",
        "o", "g", "v", "as",    "ay", "ad", "av", "(sub)", "a{su}", "aa{sv}", "a(iv)"};
    const std::string_view type = depth < 8 ? data.PickValueInArray(kTypes) : kTypes[0];
    const bool wasSkipped = isSkipped;
    isSkipped |= type.size() == 1 ? isOneOf("dogv", type[0]) : type != "a{sv}";
    MessageValue written = within(SD_BUS_TYPE_VARIANT, type, [&] { return value(type); });
    written = isSkipped ? MessageValue() : written;
    hasNull |= written.isNull();
    isSkipped = wasSkipped;
    return written;
  }

  MessageDict dict() { return *value("a{sv}").dictionary(); }
  std::string string() { return *value("s").text(); }
  std::int32_t integer() { return static_cast<std::int32_t>(*value("i").integer()); }

  sd_bus_message* sealed() {
    must(sd_bus_message_seal(message.get(), 1, 0));
    return message.get();
  }

  std::size_t entries = 0;  ///< as a request is measured
  bool hasNull = false;

 private:
  static constexpr std::array kTexts{"", "a", "b", "\xc3\xa9", "\x01\n", "\xf4\x8f\xbf\xbd"};

  MessageValue value(std::string_view type) {
    const std::string_view contents = type.substr(1, type.size() - (type[0] == 'a' ? 1 : 2));
    if (isOneOf("sog", type[0])) {
      const std::string written = type == "o"   ? "/a"
                                  : type == "g" ? "as"
                                                : data.PickValueInArray(kTexts);
      must(sd_bus_message_append_basic(message.get(), type[0], written.c_str()));
      return written;
    }
    if (type == "v") {
      return variant();
    }
    if (type.size() == 1) {
      return number(type[0]);
    }
    if (type[0] == 'a') {
      return within(SD_BUS_TYPE_ARRAY, contents, [&] { return elements(contents); });
    }
    const char container = type[0] == '(' ? SD_BUS_TYPE_STRUCT : SD_BUS_TYPE_DICT_ENTRY;
    return within(container, contents, [&] {
      for (const char& member : contents) {
        value({&member, 1});
      }
      return MessageValue();
    });
  }

  MessageValue elements(std::string_view type) {
    MessageDict dict;
    for (unsigned left = data.ConsumeIntegral<std::uint8_t>() % 80; left > 0; --left) {
      if (isSkipped || type != "{sv}") {
        value(type);
        continue;
      }
      ++entries;
      within(SD_BUS_TYPE_DICT_ENTRY, "sv", [&] {
        const std::string key = string();
        dict.set(key, variant());
        return MessageValue();
      });
    }
    return dict;
  }

  MessageValue number(char type) {
    const auto bits = data.ConsumeIntegral<std::uint64_t>() & (type == 'b' ? 1 : UINT64_MAX);
    must(sd_bus_message_append_basic(message.get(), type, &bits));
    // Of which the bus takes as many of the low bytes as the type has.
    const int unused = isOneOf("y", type)    ? 56
                       : isOneOf("nq", type) ? 48
                       : isOneOf("iu", type) ? 32
                                             : 0;
    const std::uint64_t natural = bits << unused >> unused;
    const std::int64_t integer = static_cast<std::int64_t>(bits << unused) >> unused;
    return type == 'b'                            ? MessageValue(bits != 0)
           : isOneOf("nix", type)                 ? MessageValue(integer)
           : std::in_range<std::int64_t>(natural) ? MessageValue(static_cast<std::int64_t>(natural))
                                                  : MessageValue();
  }

  template <typename Fill>
  MessageValue within(char container, std::string_view contents, const Fill& fill) {
    ++depth;
    must(sd_bus_message_open_container(message.get(), container, std::string(contents).c_str()));
    MessageValue written = fill();
    must(sd_bus_message_close_container(message.get()));
    --depth;
    return written;
  }

  FuzzedDataProvider& data;
  dbus::MessagePtr message;
  int depth = 0;
  bool isSkipped = false;  // within a value of a kind that readers do not know
};

/// A connection that nobody reads from.
sd_bus* openBus() {
  std::array<int, 2> ends{};
  sd_bus* bus = nullptr;
  must(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()));
  must(sd_bus_new(&bus));
  must(sd_bus_set_fd(bus, ends[0], ends[0]));
  must(sd_bus_start(bus));
  return bus;
}

void checkCall(Writer call, sd_bus* bus, const dbus::Peer& peer) {
  dbus::Command written;
  written.client = call.string();
  written.task = peer.takesTask ? call.integer() : written.task;
  written.name = call.string();
  written.request = call.dict();
  dbus::Command read;
  const auto isRead = [&] {
    return read.client == written.client && read.task == written.task &&
           read.name == written.name && read.request == written.request;
  };
  const CommandResult result = dbus::readCall(call.sealed(), peer, read);
  if (call.entries > dbus::kMaximumRequestEntries) {
    check(result.status == kst::kResultInvalidRequest, "a request that is too large is refused");
    return;
  }
  check(result.status == 0 && isRead(), "a call is read: " + result.text);
  dbus::MessagePtr again;
  must(dbus::makeCall(bus, peer, read, again));
  must(sd_bus_message_seal(again.get(), 1, 0));
  check(dbus::readCall(again.get(), peer, read = {}).status == 0 && (call.hasNull || isRead()),
        "it can be sent on");
}

void checkReply(Writer reply) {
  const std::int32_t status = reply.integer();
  const std::string text = reply.string();
  const MessageValue written = reply.variant();
  std::optional<MessageValue> read;
  const CommandResult result = dbus::readReply(reply.sealed(), dbus::kManager, read);
  check(result.status == status && result.text == text && read == written, "a reply is read");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  static sd_bus* const bus = openBus();
  FuzzedDataProvider data(bytes, size);
  const unsigned kind = data.ConsumeIntegral<std::uint8_t>() % 3;
  kind == 0 ? checkReply({data, bus})
            : checkCall({data, bus}, bus, kind == 1 ? dbus::kManager : dbus::kHelper);
  return 0;
}
