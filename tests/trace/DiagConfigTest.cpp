#include "trace/DiagConfig.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/fakes/Fakes.h"

namespace {

using namespace diag::config;  // NOLINT(google-build-using-namespace): the names make the tables

/// Expects the arguments to be pairs of a constant and its text.
template <typename... Texts>
void expectPairs(const Texts&... constantsAndTexts) {
  const std::vector<std::string> all = {constantsAndTexts...};
  for (std::size_t i = 0; i < all.size(); i += 2) {
    EXPECT_EQ(all[i], all[i + 1]);
  }
}

TEST(DiagConfig, Constants) {
  expectPairs(
      kTempEnabledKey, "Enabled_Temp", kTempModeKey, "Mode_Temp", kPrimaryDMCFileKey, "File",
      kSecondaryDMCFileKey, "File_Secondary", kExtraDMCFileKey, "File_Extra", kSleepDMCFileKey,
      "File_Sleep", kEnabledDuringSleepKey, "Enabled_During_Sleep", kUseThresholdKey,
      "Use_Threshold", kHighWatermarkKey, "High_Watermark", kLowWatermarkKey, "Low_Watermark",
      kBufferingOnAPAwake, "Buffering_On_AP_Awake", kStallDetectionKey, "Stall_Detection",
      kStallDetectionRecoveryKey, "Stall_Detection_Recovery", kKeepScratchLogsKey,
      "KeepScratchLogs", kDefaultPrimaryDMCFile, "Default", kDefaultSecondaryDMCFile, "None",
      kDefaultExtraDMCFile, "None", kDefaultSleepDMCFile, "Sleep", kThroughputDMCFile, "Tput",
      kNoneDMCFile, "None", kDIAGScratchDir, "DIAG.scratch", kADPLScratchDir, "DPL.scratch");
  EXPECT_THAT(
      (std::vector<std::int32_t>{kDefaultMode, kDefaultHistory, kDefaultWatchHistory, kMaxHistory,
                                 kDefaultUseThreshold, kDefaultHighWatermark, kDefaultLowWatermark,
                                 kDefaultStallDetection, kDefaultADPLHistory}),
      testing::ElementsAre(0, 256, 64, 2048, 1, 95, 1, 0, 128));
}

template <typename Enum>
void expectTexts(const std::vector<std::string>& texts) {
  static_assert(sizeof(Enum) == 4);
  for (std::size_t i = 0; i < texts.size(); ++i) {
    EXPECT_EQ(toString(static_cast<Enum>(i)), texts[i]);
  }
  EXPECT_STREQ(toString(static_cast<Enum>(-1)), "Unknown");
}

TEST(DiagConfig, EnumerationsHaveTexts) {
  expectTexts<Mode>({"Active on AP", "Active external through dock",
                     "Passive external through dock", "Passive external through software",
                     "Passive on AP", "Unknown"});
  expectTexts<DuringAPSleep>({"Off", "Full", "Lite", "Unknown"});
  expectTexts<Recovery>({"None", "Reset Baseband", "Reconfigure", "Unknown"});
}

TEST(DiagConfig, OnlyABuildWithoutFlavourAlwaysFilters) {
  for (int flavours = 0; flavours < 8; ++flavours) {
    fakes::script().carrierBuild = (flavours & 1) != 0;
    fakes::script().internalBuild = (flavours & 2) != 0;
    fakes::script().vendorBuild = (flavours & 4) != 0;
    EXPECT_EQ(getShouldAlwaysFilter(), flavours == 0) << flavours;
    EXPECT_THAT(fakes::takeLog(),
                testing::ElementsAre("isCarrierBuild", "isInternalBuild", "isVendorBuild"));
  }
}

}  // namespace
