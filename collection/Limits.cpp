#include "collection/Limits.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <limits>
#include <ostream>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "collection/PrintableText.h"
#include "platform/device/ConfigFile.h"

namespace collection {
namespace {

using Number = std::uint64_t;

struct Unit {
  std::string_view name;
  Number factor;
};

constexpr std::array kSizeUnits = {Unit{"", 1}, Unit{"K", 1 << 10}, Unit{"M", 1 << 20},
                                   Unit{"G", 1 << 30}};
constexpr std::array kTimeUnits = {Unit{"", 1}, Unit{"s", 1}, Unit{"min", 60}, Unit{"h", 3600},
                                   Unit{"d", 86'400}};
constexpr std::array kNoUnits = {Unit{"", 1}};

/// A century, which every clock can add to its present time.
constexpr Number kLongestTime = Number{86'400} * 36'525;

/// Whole numbers alone, with one of the units right behind them.
template <std::size_t Count>
std::optional<Number> readNumber(std::string_view text, const std::array<Unit, Count>& units) {
  Number number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc()) {
    return {};
  }
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  for (const Unit& unit : units) {
    if (text == unit.name && number <= std::numeric_limits<Number>::max() / unit.factor) {
      return number * unit.factor;
    }
  }
  return {};
}

template <typename Size>
bool readSize(std::string_view text, Size& size, Number least) {
  const auto number = readNumber(text, kSizeUnits);
  if (!number || *number < least) {
    return false;
  }
  size = *number;
  return true;
}

bool readTime(std::string_view text, std::chrono::seconds& time, Number least) {
  const auto number = readNumber(text, kTimeUnits);
  if (!number || *number < least || *number > kLongestTime) {
    return false;
  }
  time = std::chrono::seconds(*number);
  return true;
}

bool readCount(std::string_view text, std::size_t& count, Number least) {
  const auto number = readNumber(text, kNoUnits);
  if (!number || *number < least || !std::in_range<std::size_t>(*number)) {
    return false;
  }
  count = static_cast<std::size_t>(*number);
  return true;
}

bool readKeptRoom(std::string_view text, KeptRoom& kept) {
  if (!text.ends_with('%')) {
    KeptRoom room{.bytes = 0, .percent = 0};
    const bool isSize = readSize(text, room.bytes, 0);
    kept = isSize ? room : kept;
    return isSize;
  }
  const auto percent = readNumber(text.substr(0, text.size() - 1), kNoUnits);
  if (!percent || *percent > 100) {
    return false;
  }
  kept = {.bytes = 0, .percent = static_cast<unsigned>(*percent)};
  return true;
}

bool readLimit(const std::string& key, const std::string& value, Limits& limits) {
  return (key == "max_total" && readSize(value, limits.maxTotal, 1)) ||
         (key == "keep_free" && readKeptRoom(value, limits.keepFree)) ||
         (key == "max_snapshots" && readCount(value, limits.maxSnapshots, 1)) ||
         (key == "max_age" && readTime(value, limits.maxAge, 1)) ||
         (key == "keep_newest" && readCount(value, limits.keepNewest, 0)) ||
         (key == "max_source" && readSize(value, limits.maxSource, 1)) ||
         (key == "collection_time" && readTime(value, limits.collectionTime, 1)) ||
         (key == "lock_time" && readTime(value, limits.lockTime, 0)) ||
         (key == "core_dump_time" && readTime(value, limits.coreDumpTime, 1)) ||
         (key == "max_waiting" && readCount(value, limits.maxWaiting, 0));
}

}  // namespace

Limits readLimits(std::ostream& problems) {
  Limits limits;
  const std::string path = configPath("KESTRANE_COLLECTION_CONF", "/etc/kestrane/collection.conf");
  const std::vector<ConfigLine> lines = readConfigFile(path);
  if (const int error = errno; error != 0 && error != ENOENT) {
    problems << printable(path) << ": " << std::generic_category().message(error) << std::endl;
  }
  for (const ConfigLine& line : lines) {
    if (!line.hasValue || !readLimit(line.key, line.value, limits)) {
      problems << printable(path) << ": cannot be read: "
               << printable(line.key + (line.hasValue ? " = " + line.value : "")) << std::endl;
    }
  }
  return limits;
}

}  // namespace collection
