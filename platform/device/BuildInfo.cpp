#include "platform/device/BuildInfo.h"

#include "platform/device/DeviceConfig.h"

bool BuildInfo::isCarrierBuild() { return DeviceConfig::load().flag("carrier_build"); }
bool BuildInfo::isInternalBuild() { return DeviceConfig::load().flag("internal_build"); }
bool BuildInfo::isVendorBuild() { return DeviceConfig::load().flag("vendor_build"); }
bool BuildInfo::isTraceAllowed() { return DeviceConfig::load().flag("trace_allowed"); }
