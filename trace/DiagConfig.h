#pragma once

#include <cstdint>

/// The settings of the baseband's diagnostic logging: keys, defaults and enumerations of its
/// configuration.
namespace diag::config {

enum class Mode : std::int32_t {
  kActiveOnAP = 0,
  kActiveExternalThroughDock = 1,
  kPassiveExternalThroughDock = 2,
  kPassiveExternalThroughSoftware = 3,
  kPassiveOnAP = 4,
};

enum class DuringAPSleep : std::int32_t { kOff = 0, kFull = 1, kLite = 2 };

enum class Recovery : std::int32_t { kNone = 0, kResetBaseband = 1, kReconfigure = 2 };

// Keys.
inline const char* kTempEnabledKey = "Enabled_Temp";
inline const char* kTempModeKey = "Mode_Temp";
inline const char* kPrimaryDMCFileKey = "File";
inline const char* kSecondaryDMCFileKey = "File_Secondary";
inline const char* kExtraDMCFileKey = "File_Extra";
inline const char* kSleepDMCFileKey = "File_Sleep";
inline const char* kEnabledDuringSleepKey = "Enabled_During_Sleep";
inline const char* kUseThresholdKey = "Use_Threshold";
inline const char* kHighWatermarkKey = "High_Watermark";
inline const char* kLowWatermarkKey = "Low_Watermark";
inline const char* kBufferingOnAPAwake = "Buffering_On_AP_Awake";
inline const char* kStallDetectionKey = "Stall_Detection";
inline const char* kStallDetectionRecoveryKey = "Stall_Detection_Recovery";
inline const char* kKeepScratchLogsKey = "KeepScratchLogs";

// Default files.
inline const char* kDefaultPrimaryDMCFile = "Default";
inline const char* kDefaultSecondaryDMCFile = "None";
inline const char* kDefaultExtraDMCFile = "None";
inline const char* kDefaultSleepDMCFile = "Sleep";
inline const char* kThroughputDMCFile = "Tput";
inline const char* kNoneDMCFile = "None";

// Folders below kst::trace::kScratchFolder.
inline const char* kDIAGScratchDir = "DIAG.scratch";
inline const char* const kADPLScratchDir = "DPL.scratch";

// Default numbers.
inline constexpr std::int32_t kDefaultMode = 0;
inline constexpr std::int32_t kDefaultHistory = 256;
inline constexpr std::int32_t kDefaultWatchHistory = 64;
inline constexpr std::int32_t kMaxHistory = 2048;
inline constexpr std::int32_t kDefaultUseThreshold = 1;
inline constexpr std::int32_t kDefaultHighWatermark = 95;
inline constexpr std::int32_t kDefaultLowWatermark = 1;
inline constexpr std::int32_t kDefaultStallDetection = 0;
inline constexpr std::int32_t kDefaultADPLHistory = 128;

/// The display text of a value, of static lifetime; "Unknown" for a number that is no value of the
/// enumeration.
const char* toString(Mode mode);
const char* toString(DuringAPSleep duringSleep);
const char* toString(Recovery recovery);

/// Whether this build never logs unfiltered.
bool getShouldAlwaysFilter();

}  // namespace diag::config
