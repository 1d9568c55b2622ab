#include "platform/device/DeviceConfig.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "platform/device/BuildInfo.h"
#include "platform/device/RadioInfo.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

class DeviceConfigTest : public testing::Test {
 protected:
  /// Has the configuration read from `path`.
  static void use(const std::string& path) {
    setenv("KESTRANE_DEVICE_CONF", path.c_str(), 1);  // NOLINT(concurrency-mt-unsafe): one thread
  }

  /// Has the configuration read from a file that holds `text`.
  void configure(const std::string& text) const {
    std::ofstream(directory / "device.conf") << text;
    use(directory / "device.conf");
  }

  const TemporaryDirectory directory;
};

TEST_F(DeviceConfigTest, ReadsSettings) {
  configure(
      "# radio = 9\nradio = 3\r\n\nno equals sign\n= 8\n  radio_vendor\t=\t2  # two\n"
      "product=1\nproduct=58\nunknown = 7\n"
      "internal_build = true\ncarrier_build=1\nvendor_build = false\ntrace_allowed = 1#\n"
      "trace.BasebandTrace.Enabled = a = b \ntrace.Empty.Enabled =");
  EXPECT_EQ(RadioInfo::getRadio(), 3);
  EXPECT_EQ(RadioInfo::getRadioVendor(), 2);
  EXPECT_EQ(RadioInfo::getProduct(), 58);
  EXPECT_TRUE(BuildInfo::isInternalBuild());
  EXPECT_TRUE(BuildInfo::isCarrierBuild());
  EXPECT_FALSE(BuildInfo::isVendorBuild());
  EXPECT_TRUE(BuildInfo::isTraceAllowed());
  const DeviceConfig config = DeviceConfig::load();
  EXPECT_EQ(config.text("trace.BasebandTrace.Enabled"), "a = b");
  EXPECT_EQ(config.text("trace.Empty.Enabled"), "");
  EXPECT_EQ(config.text("trace.Other.Enabled"), std::nullopt);
  configure("vendor_build = true");
  EXPECT_EQ(RadioInfo::getRadio(), 0);
  EXPECT_TRUE(BuildInfo::isVendorBuild());
}

TEST_F(DeviceConfigTest, BrokenValuesCountAsUnset) {
  const auto expectValue = [this](const char* value, std::int32_t integer, bool flag) {
    SCOPED_TRACE(value);
    configure(std::string("key = ") + value + "\n");
    EXPECT_EQ(DeviceConfig::load().integer("key"), integer);
    EXPECT_EQ(DeviceConfig::load().flag("key"), flag);
  };
  expectValue("1", 1, true);
  expectValue("true", 0, true);
  expectValue("-2147483648", INT32_MIN, false);
  for (const char* const broken : {"2147483648", "4294967297", "99999999999999999999", "+1", "0x1",
                                   "1.0", "1 2", "1x", "\"1\"", "TRUE", "", "=1", "\xff"}) {
    expectValue(broken, 0, false);
  }
}

TEST_F(DeviceConfigTest, OddFilesAreNoConfiguration) {
  ASSERT_EQ(mkfifo((directory / "pipe").c_str(), 0600), 0);
  std::filesystem::create_symlink(directory / "loop", directory / "loop");
  std::ofstream(directory / "bytes") << std::string("\0=\n\xff\nradio\0= 1\n=", 15);
  for (const char* const name : {"missing", "pipe", "loop", "bytes", "", "bytes/below"}) {
    SCOPED_TRACE(name);
    use(directory / name);
    EXPECT_EQ(RadioInfo::getRadio(), 0);
    EXPECT_FALSE(BuildInfo::isTraceAllowed());
  }
}

}  // namespace
