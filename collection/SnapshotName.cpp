#include "collection/SnapshotName.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "trace/Trace.h"

namespace collection {
namespace {

constexpr auto kSuffixes =
    std::to_array<std::string_view>({"-telephony", "-telephony.zip", "-coredump", "-coredump.zip",
                                     "-baseband.zip", "-diag", "-bb-trace"});

}  // namespace

std::optional<SnapshotName> SnapshotName::read(const std::string& name) {
  constexpr std::string_view kPattern = "dddd-dd-dd-dd-dd-dd-ddd";
  const std::string_view prefix = kst::trace::kLogDirPrefix;
  if (!name.starts_with(prefix) || name.size() < prefix.size() + kPattern.size()) {
    return {};
  }
  SnapshotName read{.timestamp = name.substr(prefix.size(), kPattern.size()),
                    .suffix = name.substr(prefix.size() + kPattern.size())};
  const bool isTimestamp = std::equal(
      kPattern.begin(), kPattern.end(), read.timestamp.begin(), [](char wanted, char found) {
        return wanted == 'd' ? found >= '0' && found <= '9' : found == wanted;
      });
  const bool isSuffix =
      std::find(kSuffixes.begin(), kSuffixes.end(), read.suffix) != kSuffixes.end();
  return isTimestamp && isSuffix && read.time() ? std::optional(read) : std::nullopt;
}

std::string SnapshotName::text() const { return kst::trace::kLogDirPrefix + timestamp + suffix; }

std::optional<time_t> SnapshotName::time() const {
  tm local{};
  const char* const end = strptime(timestamp.c_str(), "%Y-%m-%d-%H-%M-%S", &local);
  if (end == nullptr) {
    return {};
  }
  local.tm_isdst = -1;
  const time_t seconds = mktime(&local);
  return seconds == -1 ? std::nullopt : std::optional(seconds);
}

}  // namespace collection
