#pragma once

#include <cstdint>

#include "platform/device/BuildInfo.h"
#include "platform/device/RadioInfo.h"

/// The tests of radio, product and build that the trace queries and the tool share. Each asks the
/// device exactly what its body shows, and nothing that the outcome does not need.
namespace kst::trace {

/// One of the products that run neither Corvend nor vexild.
inline bool isDaemonlessProduct() {
  return static_cast<std::uint32_t>(RadioInfo::getProduct()) - 58U < 4U;
}

inline bool isVendor1() { return RadioInfo::getRadioVendor() == 1; }
inline bool isVendor2() { return RadioInfo::getRadioVendor() == 2; }

/// How the name of uncompressed baseband logs ends.
inline const char* basebandFolderSuffix() { return isVendor2() ? "-diag" : "-bb-trace"; }

inline bool isInternal() { return BuildInfo::isInternalBuild(); }
inline bool isInternalOrCarrier() {
  return BuildInfo::isInternalBuild() || BuildInfo::isCarrierBuild();
}
inline bool isCarrierOnly() { return BuildInfo::isCarrierBuild() && !BuildInfo::isInternalBuild(); }

/// Radio kinds 1, 2 and 8 make up one set; every other kind, 0 and unknown ones included, is its
/// complement.
inline bool isRadioInSet() {
  const std::int32_t radio = RadioInfo::getRadio();
  return radio == 1 || radio == 2 || radio == 8;
}
inline bool isRadioInComplement() { return !isRadioInSet(); }

}  // namespace kst::trace
