#include "trace/DiagConfig.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/fakes/Fakes.h"

namespace {

using namespace diag::config;  // NOLINT(google-build-using-namespace): the names make the tables

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
