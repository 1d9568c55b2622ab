#pragma once

/// The flavour of the system build. Every query reads the device configuration anew; what is not
/// configured is false. Callable from any thread.
class BuildInfo {
 public:
  static bool isCarrierBuild();
  static bool isInternalBuild();
  static bool isVendorBuild();

  /// Whether this build may collect traces at all.
  static bool isTraceAllowed();
};
