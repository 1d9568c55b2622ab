#include "platform/device/DeviceConfig.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "platform/device/BuildInfo.h"
#include "platform/device/RadioInfo.h"
#include "tests/support/Files.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

class DeviceConfigTest : public testing::Test {
 protected:
  void configure(const std::string& text) const {
    writeFile(directory / "conf", text);
    // NOLINTNEXTLINE(concurrency-mt-unsafe)
    setenv("KESTRANE_DEVICE_CONF", (directory / "conf").c_str(), 1);
  }

  const TemporaryDirectory directory;
};

TEST_F(DeviceConfigTest, ReadsSettings) {
  configure(
      "# radio = 9\nradio = 3\r\n\nno equals sign\n= 8\n  radio_vendor\t=\t2  # two\n"
      "product=1\nproduct=-2147483648\nunknown = 7\n"
      "internal_build = true\ncarrier_build=1\nvendor_build = false\ntrace_allowed = 1#\n"
      "trace.BasebandTrace.Enabled = a = b \ntrace.Empty.Enabled =");
  EXPECT_EQ(RadioInfo::getRadio(), 3);
  EXPECT_EQ(RadioInfo::getRadioVendor(), 2);
  EXPECT_EQ(RadioInfo::getProduct(), INT32_MIN);
  EXPECT_TRUE(BuildInfo::isInternalBuild() && BuildInfo::isCarrierBuild());
  EXPECT_TRUE(BuildInfo::isTraceAllowed() && !BuildInfo::isVendorBuild());
  const DeviceConfig config = DeviceConfig::load();
  EXPECT_EQ(config.text("trace.BasebandTrace.Enabled"), "a = b");
  EXPECT_EQ(config.text("trace.Empty.Enabled"), "");
  EXPECT_EQ(config.text("trace.Other.Enabled"), std::nullopt);
  configure("vendor_build = true");  // each question reads the file anew
  EXPECT_EQ(RadioInfo::getRadio(), 0);
  EXPECT_TRUE(BuildInfo::isVendorBuild());
}

TEST_F(DeviceConfigTest, BrokenValuesCountAsUnset) {
  for (const std::string value : {"2147483648", "99999999999999999999", "+1", "1x", "TRUE", ""}) {
    configure("key = " + value + "\n");
    EXPECT_EQ(DeviceConfig::load().integer("key"), 0) << value;
    EXPECT_FALSE(DeviceConfig::load().flag("key")) << value;
  }
}

TEST_F(DeviceConfigTest, OddFilesAreNoConfiguration) {
  ASSERT_EQ(mkfifo((directory / "pipe").c_str(), 0600), 0);
  for (const char* const name : {"missing", "pipe", ""}) {
    setenv("KESTRANE_DEVICE_CONF", (directory / name).c_str(), 1);  // NOLINT(concurrency-mt-unsafe)
    EXPECT_EQ(RadioInfo::getRadio(), 0);
  }
}

}  // namespace
