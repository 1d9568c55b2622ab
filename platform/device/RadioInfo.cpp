#include "platform/device/RadioInfo.h"

#include "platform/device/DeviceConfig.h"

std::int32_t RadioInfo::getRadio() { return DeviceConfig::load().integer("radio"); }
std::int32_t RadioInfo::getRadioVendor() { return DeviceConfig::load().integer("radio_vendor"); }
std::int32_t RadioInfo::getProduct() { return DeviceConfig::load().integer("product"); }
