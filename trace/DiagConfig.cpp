#include "trace/DiagConfig.h"

#include <array>
#include <cstddef>

#include "platform/device/BuildInfo.h"

namespace diag::config {

namespace {

template <typename Enum, std::size_t size>
const char* textOf(Enum value, const std::array<const char*, size>& texts) {
  const auto index = static_cast<std::uint32_t>(value);
  return index < size ? texts[index] : "Unknown";
}

}  // namespace

const char* toString(Mode mode) {
  return textOf(mode, std::array{"Active on AP", "Active external through dock",
                                 "Passive external through dock",
                                 "Passive external through software", "Passive on AP"});
}

const char* toString(DuringAPSleep duringSleep) {
  return textOf(duringSleep, std::array{"Off", "Full", "Lite"});
}

const char* toString(Recovery recovery) {
  return textOf(recovery, std::array{"None", "Reset Baseband", "Reconfigure"});
}

bool getShouldAlwaysFilter() {
  const bool carrier = BuildInfo::isCarrierBuild();
  const bool internal = BuildInfo::isInternalBuild();
  const bool vendor = BuildInfo::isVendorBuild();
  return !carrier && !internal && !vendor;
}

}  // namespace diag::config
