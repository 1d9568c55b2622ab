#include "trace/Trace.h"

#include <array>
#include <thread>
#include <vector>

#include "tests/fakes/Fakes.h"
#include "trace/DevicePredicates.h"
#include "trace/DiagConfig.h"

namespace {

using namespace diag::config;  // NOLINT(google-build-using-namespace): the names make the tables
using namespace kst::trace;    // NOLINT(google-build-using-namespace)

using Kinds = std::set<std::int32_t>;
using TraceTest = fakes::Test;

TEST_F(TraceTest, AnswersByRadioVendorProductAndWhatIsAllowed) {
  const Kinds all = {INT32_MIN, -1, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 57, 58, 59, 60, 61, 62, 257};
  /// The query's answer is true for these kinds of whatever it asks for.
  const auto expectTrue = [&](const auto& query, const Kinds& kinds, const std::string& questions) {
    for (const std::int32_t kind : all) {
      fakes::script().radio = fakes::script().radioVendor = fakes::script().product = kind;
      EXPECT_EQ(query(), kinds.contains(kind)) << questions << kind;
      EXPECT_EQ(takeLog(), questions);
    }
  };
  const auto checkAll = [&](bool allowed) {
    fakes::script().traceAllowed = allowed;
    {
      std::array<std::jthread, 8> threads;
      for (std::jthread& thread : threads) {
        thread = std::jthread([&] { EXPECT_EQ(isAllowed(), allowed); });
      }
    }
    EXPECT_EQ(takeLog(), "isTraceAllowed\n");
    fakes::script().traceAllowed = !allowed;  // nobody asks again

    const auto ifAllowed = [&](const Kinds& kinds) { return allowed ? kinds : Kinds(); };
    const auto expectSupported = [&](const std::vector<std::string>& names, const Kinds& kinds,
                                     const std::string& questions) {
      for (const std::string& name : names) {
        expectTrue([&] { return isSupported(name); }, kinds, questions);
      }
    };
    expectTrue(isKernelPCITraceSupported, ifAllowed({3, 4, 5, 6, 7}), "getRadio\n");
    expectTrue(isCoreDumpStatusSupported, {1, 2, 3, 8}, "getRadio\n");
    expectTrue(isRadioInSet, {1, 2, 8}, "getRadio\n");
    expectTrue(isRadioInComplement,
               {INT32_MIN, -1, 0, 3, 4, 5, 6, 7, 9, 57, 58, 59, 60, 61, 62, 257}, "getRadio\n");
    expectTrue(isDaemonlessProduct, {58, 59, 60, 61}, "getProduct\n");
    expectSupported({"BasebandIPC"}, ifAllowed({1, 2, 3, 4, 5, 6, 7, 8}), "getRadio\n");
    expectSupported({"KST", "kst", "BasebandTrace", "CoreDump", "Profile"}, all, "");
    expectSupported({"DIAG", "diag", "zORCoreDump"}, {2}, "getRadioVendor\n");
    expectSupported({"JUNTrace", "junTRACE", "JUNCoreDump"}, {1}, "getRadioVendor\n");
    expectSupported({"IPC", "Compression", "QUICKTICKET", "SystemLogs"}, ifAllowed(all), "");
    expectSupported({"CSILog", "TelephonyLog", "", "KS", "KSTT", {"KST\0", 4}, "\xEB\xF3\xF4"}, {},
                    "");
    fakes::script().carrierBuild = true;
    expectTrue(isDumpLogIndicationSupported, {1, 2, 3, 4, 6, 8},
               "isInternalBuild\nisCarrierBuild\ngetRadio\n");
    kProfile = "Renamed";  // the names are variables
    EXPECT_TRUE(isSupported("renamed") && !isSupported("Profile"));
    exit(HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS);  // NOLINT(concurrency-mt-unsafe)
  };
  // Each in a process of its own: what is allowed is asked once for the life of a process.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(checkAll(true), testing::ExitedWithCode(EXIT_SUCCESS), "");
  EXPECT_EXIT(checkAll(false), testing::ExitedWithCode(EXIT_SUCCESS), "");
}

TEST_F(TraceTest, BuildPredicatesAskNoMoreThanTheyNeed) {
  for (int flavours = 0; flavours < 8; ++flavours) {
    const bool carrier = fakes::script().carrierBuild = (flavours & 1) != 0;
    const bool internal = fakes::script().internalBuild = (flavours & 2) != 0;
    fakes::script().vendorBuild = (flavours & 4) != 0;
    EXPECT_EQ(getShouldAlwaysFilter(), flavours == 0) << flavours;
    EXPECT_EQ(takeLog(), "isCarrierBuild\nisInternalBuild\nisVendorBuild\n");
    EXPECT_EQ(isInternal(), internal);
    EXPECT_EQ(takeLog(), "isInternalBuild\n");
    EXPECT_EQ(isInternalOrCarrier(), internal || carrier);
    EXPECT_EQ(takeLog(), internal ? "isInternalBuild\n" : "isInternalBuild\nisCarrierBuild\n");
    EXPECT_EQ(isCarrierOnly(), carrier && !internal);
    EXPECT_EQ(takeLog(), carrier ? "isCarrierBuild\nisInternalBuild\n" : "isCarrierBuild\n");
  }
  fakes::script().internalBuild = fakes::script().carrierBuild = false;
  EXPECT_FALSE(isDumpLogIndicationSupported());
  EXPECT_EQ(takeLog(), "isInternalBuild\nisCarrierBuild\n");
}

TEST_F(TraceTest, EnumerationsHaveTexts) {
  const auto expectTexts = [](auto last, const char* text) {
    EXPECT_STREQ(toString(last), text);
    EXPECT_STREQ(toString(static_cast<decltype(last)>(static_cast<int>(last) + 1)), "Unknown");
    EXPECT_STREQ(toString(static_cast<decltype(last)>(-1)), "Unknown");
  };
  expectTexts(static_cast<Mode>(4), "Passive on AP");
  expectTexts(static_cast<DuringAPSleep>(2), "Lite");
  expectTexts(static_cast<Recovery>(2), "Reconfigure");
}

}  // namespace
