#pragma once

#include <cstdint>

/// The device's radio. Every query reads the device configuration anew; what is not configured is
/// 0. Callable from any thread.
class RadioInfo {
 public:
  /// The radio kind; 0 means that the product has no radio.
  static std::int32_t getRadio();

  /// The code of the radio's vendor.
  static std::int32_t getRadioVendor();

  /// The product code.
  static std::int32_t getProduct();
};
