#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "collection/CollectionRequest.h"
#include "collection/DumpIndication.h"
#include "platform/client/Constants.h"
#include "tests/collection/TemporaryDevice.h"

namespace collection {
namespace {

TEST(CollectionRequestTest, ReadsEveryActionAndFillsInWhatIsMissing) {
  MessageDict bare;
  bare.set(kst::kKeyTraceAction, kst::kCollectBasebandLogs);
  const auto baseband = readCollectionRequest(bare);
  ASSERT_TRUE(baseband);
  EXPECT_EQ(baseband->kind, LogKind::kBaseband);
  EXPECT_TRUE(baseband->compress);
  EXPECT_EQ(baseband->reason, kst::kUnknown);

  MessageDict full;
  full.set(kst::kKeyTraceAction, kst::kCollectTelephonyLogs);
  full.set(kst::kKeyTraceDumpStateReason, "two\nlines\x7f");
  full.set(kst::kKeyBasebandResetReason, "another");
  full.set(kst::kKeyTraceDumpStatePerformCompression, false);
  EXPECT_EQ(readCollectionRequest(full)->reason, "two?lines?");
  EXPECT_FALSE(readCollectionRequest(full)->compress);

  full.set(kst::kKeyTraceAction, kst::kCollectTelephonyLogsWithCoredump);
  full.set(kst::kKeyBasebandResetType, kst::kBasebandResetTypeHard);
  EXPECT_EQ(readCollectionRequest(full)->reason, "another");
  EXPECT_EQ(readCollectionRequest(full)->resetType, "Hard");
  EXPECT_EQ(readCollectionRequest(full)->resetSubType, kst::kUnknown);
}

TEST(CollectionRequestTest, RefusesAnythingElse) {
  for (const MessageValue& action : std::vector<MessageValue>{
           {}, "", "collecttelephonylogs", "CollectTelephonyLogsX", true, std::int64_t{1}}) {
    MessageDict request;
    request.set(kst::kKeyTraceAction, action);
    EXPECT_FALSE(readCollectionRequest(request));
  }
  EXPECT_FALSE(readCollectionRequest({}));
}

TEST(DumpIndicationTest, StandsWhileTheObjectLives) {
  const TemporaryDevice device;
  const std::string file = device.paths().dumpIndication;
  {
    const DumpIndication indication(file);
    EXPECT_FALSE(indication.raise());
    EXPECT_TRUE(std::filesystem::exists(file));
  }
  EXPECT_FALSE(std::filesystem::exists(file));

  // What a killed process has left is replaced, a link that somebody has put there not followed.
  std::filesystem::create_symlink(device.root() + "/target", file);
  const DumpIndication indication(file);
  EXPECT_FALSE(indication.raise());
  EXPECT_FALSE(std::filesystem::exists(device.root() + "/target"));
  EXPECT_FALSE(std::filesystem::is_symlink(file));
}

}  // namespace
}  // namespace collection
