#include "trace/Trace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <set>
#include <thread>
#include <vector>

#include "tests/fakes/Fakes.h"
#include "trace/DevicePredicates.h"

namespace {

using namespace kst::trace;  // NOLINT(google-build-using-namespace): the names make the tables
using Log = std::vector<std::string>;

TEST(Trace, QueriesOfTheRadioKindAskOnce) {
  fakes::script().traceAllowed = true;
  fakes::script().carrierBuild = true;
  const struct {
    bool (*query)();
    std::set<std::int32_t> kinds;
    Log questions;
  } cases[] = {
      {isKernelPCITraceSupported, {3, 4, 5, 6, 7}, {"getRadio"}},
      {isCoreDumpStatusSupported, {1, 2, 3, 8}, {"getRadio"}},
      {isDumpLogIndicationSupported,
       {1, 2, 3, 4, 6, 8},
       {"isInternalBuild", "isCarrierBuild", "getRadio"}},
      {[] { return isSupported("BasebandIPC"); }, {1, 2, 3, 4, 5, 6, 7, 8}, {"getRadio"}},
      {isRadioInSet, {1, 2, 8}, {"getRadio"}},
      {isRadioInComplement, {-1, 0, 3, 4, 5, 6, 7, 9, 257}, {"getRadio"}},
  };
  EXPECT_TRUE(isAllowed());
  fakes::takeLog();
  for (const auto& test : cases) {
    for (const std::int32_t kind : {-1, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 257}) {
      SCOPED_TRACE(testing::Message() << "case " << &test - cases << ", kind " << kind);
      fakes::script().radio = kind;
      EXPECT_EQ(test.query(), test.kinds.contains(kind));
      EXPECT_EQ(fakes::takeLog(), test.questions);
    }
  }
}

TEST(Trace, AllowedIsAskedAtTheFirstUseAndNeverAgain) {
  fakes::script().traceAllowed = true;
  // None of these needs it.
  for (const char* const name : {"KST", "DIAG", "Profile", "CSILog", "CoreDump", ""}) {
    isSupported(name);
  }
  for (const std::int32_t kind : {0, 9}) {
    fakes::script().radio = kind;
    EXPECT_FALSE(isSupported("BasebandIPC"));
    EXPECT_FALSE(isKernelPCITraceSupported());
  }
  EXPECT_THAT(fakes::takeLog(), testing::Each(testing::Ne("isTraceAllowed")));

  std::array<std::thread, 8> threads;
  for (std::thread& thread : threads) {
    thread = std::thread([] { EXPECT_TRUE(isAllowed()); });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  fakes::script().traceAllowed = false;
  EXPECT_TRUE(isSupported("ipc"));
  EXPECT_EQ(fakes::takeLog(), Log({"isTraceAllowed"}));
}

/// Asks for every kind, on a build that allows tracing or does not.
void checkKinds(bool allowed) {
  fakes::script().traceAllowed = allowed;
  EXPECT_EQ(isAllowed(), allowed);
  fakes::takeLog();
  const Log none;
  const Log vendor = {"getRadioVendor"};
  const struct {
    std::vector<std::string> names;
    bool onVendor1;
    bool onVendor2;
    bool onOthers;
    Log questions;
  } cases[] = {
      {{"KST", "kst", "BasebandTrace", "CoreDump", "Profile"}, true, true, true, none},
      {{"DIAG", "diag", "ZORCoreDump"}, false, true, false, vendor},
      {{"JUNTrace", "junTRACE", "JUNCoreDump"}, true, false, false, vendor},
      {{"IPC", "Compression", "QUICKTICKET", "SystemLogs"}, allowed, allowed, allowed, none},
      {{"BasebandIPC"}, allowed, allowed, allowed, {"getRadio"}},
      {{"CSILog", "TelephonyLog", "", "KS", "KSTT", std::string("KST\0", 4), "\xEB\xF3\xF4"},
       false,
       false,
       false,
       none},
  };
  for (const auto& test : cases) {
    for (const std::string& name : test.names) {
      SCOPED_TRACE(name);
      const std::pair<std::int32_t, bool> vendors[] = {
          {0, test.onOthers}, {1, test.onVendor1}, {2, test.onVendor2}, {3, test.onOthers}};
      for (const auto& [code, expected] : vendors) {
        fakes::script().radioVendor = code;
        EXPECT_EQ(isSupported(name), expected) << "vendor " << code;
        EXPECT_EQ(fakes::takeLog(), test.questions);
      }
    }
  }
}

TEST(Trace, KindsWhereTracingIsAllowed) { checkKinds(true); }
TEST(Trace, KindsWhereTracingIsNotAllowed) { checkKinds(false); }

TEST(Trace, BuildPredicatesAskNoMoreThanTheyNeed) {
  EXPECT_FALSE(isCarrierOnly());
  EXPECT_FALSE(isDumpLogIndicationSupported());
  EXPECT_EQ(fakes::takeLog(), Log({"isCarrierBuild", "isInternalBuild", "isCarrierBuild"}));
  fakes::script().carrierBuild = true;
  EXPECT_TRUE(isCarrierOnly());
  fakes::script().internalBuild = true;
  EXPECT_FALSE(isCarrierOnly());
  fakes::takeLog();
  EXPECT_TRUE(isDumpLogIndicationSupported());
  EXPECT_EQ(fakes::takeLog(), Log({"isInternalBuild", "getRadio"}));
}

}  // namespace
