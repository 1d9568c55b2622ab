#include "trace/Trace.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <initializer_list>
#include <mutex>
#include <string_view>

#include "platform/device/BuildInfo.h"
#include "platform/device/RadioInfo.h"
#include "trace/DevicePredicates.h"

namespace kst::trace {

namespace {

bool isRadioOneOf(std::initializer_list<std::int32_t> kinds) {
  const std::int32_t radio = RadioInfo::getRadio();
  return std::find(kinds.begin(), kinds.end(), radio) != kinds.end();
}

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool equalIgnoringCase(std::string_view left, std::string_view right) {
  return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                    [](char a, char b) { return lower(a) == lower(b); });
}

bool always() { return true; }

bool isBasebandIPCSupported() { return isRadioOneOf({1, 2, 3, 4, 5, 6, 7, 8}) && isAllowed(); }

}  // namespace

bool isAllowed() {
  static std::once_flag asked;
  static bool allowed = false;
  std::call_once(asked, [] { allowed = BuildInfo::isTraceAllowed(); });
  return allowed;
}

bool isKernelPCITraceSupported() { return isRadioOneOf({3, 4, 5, 6, 7}) && isAllowed(); }

bool isSupported(std::string name) {
  struct Kind {
    const char* name;
    bool (*isSupported)();
  };
  // Made anew for each call: the names are variables.
  const std::array<Kind, 13> kinds = {{
      {kKST, always},
      {kDIAG, isVendor2},
      {kJUNTrace, isVendor1},
      {kBasebandTrace, always},
      {kZORCoreDump, isVendor2},
      {kJUNCoreDump, isVendor1},
      {kCoreDump, always},
      {kBasebandIPC, isBasebandIPCSupported},
      {kIPC, isAllowed},
      {kCompression, isAllowed},
      {kQuickTicket, isAllowed},
      {kSystemLogs, isAllowed},
      {kProfile, always},
  }};
  return std::any_of(kinds.begin(), kinds.end(), [&](const Kind& kind) {
    return equalIgnoringCase(name, kind.name) && kind.isSupported();
  });
}

bool isCoreDumpStatusSupported() { return isRadioOneOf({1, 2, 3, 8}); }

bool isDumpLogIndicationSupported() {
  return isInternalOrCarrier() && isRadioOneOf({1, 2, 3, 4, 6, 8});
}

}  // namespace kst::trace
