#include "collection/CollectionRequest.h"
#include "collection/DumpIndication.h"
#include "platform/client/Constants.h"
#include "platform/message/MessageDict.h"
#include "tests/collection/DeviceTest.h"

namespace collection {
namespace {

using Entries = std::vector<std::pair<const char*, MessageValue>>;

/// The request that is read from these entries, as text; empty if it is refused.
std::string textOf(const Entries& entries) {
  MessageDict message;
  for (const auto& [key, value] : entries) {
    message.set(key, value);
  }
  const auto read = readCollectionRequest(message);
  return read ? actionOf(read->kind) + std::string(read->compress ? ", compress" : "") +
                    (read->isIndicated ? ", indicated: " : ": ") + read->reason + ", " +
                    read->resetType + ", " + read->resetSubType
              : "";
}

TEST(CollectionRequestTest, ReadsEveryActionAndFillsInWhatIsMissing) {
  EXPECT_EQ(textOf({{"another", std::int64_t{1}}, {kst::kKeyTraceAction, "CollectBasebandLogs"}}),
            "CollectBasebandLogs, compress, indicated: Unknown, Unknown, Unknown");
  Entries entries = {{kst::kKeyTraceDumpStateReason, "two\nlines\x7f"},
                     {kst::kKeyTraceDumpStatePerformCompression, false},
                     {kst::kKeyBasebandResetReason, "an\tother"},
                     {kst::kKeyBasebandResetType, "Ha\trd"},
                     {kst::kKeyBasebandResetSubType, "Sub\x1b"},
                     {kst::kKeyTraceAction, "CollectTelephonyLogs"}};
  EXPECT_EQ(textOf(entries), "CollectTelephonyLogs, indicated: two?lines?, Ha?rd, Sub?");
  entries.back().second = "CollectTelephonyLogsWithCoredump";
  EXPECT_EQ(textOf(entries), "CollectTelephonyLogsWithCoredump, indicated: an?other, Ha?rd, Sub?");
}

TEST(CollectionRequestTest, RefusesAnythingElse) {
  EXPECT_EQ(textOf({}), "");
  const Entries cases = {{kst::kKeyTraceAction, {}},
                         {kst::kKeyTraceAction, "collecttelephonylogs"},
                         {kst::kKeyTraceDumpStatePerformCompression, "true"},
                         {kst::kKeyTraceDumpStateReason, true},
                         {kst::kKeyBasebandResetReason, MessageDict()},
                         {kst::kKeyBasebandResetType, {}},
                         {kst::kKeyBasebandResetSubType, std::int64_t{1}}};
  for (const auto& [key, value] : cases) {
    EXPECT_EQ(textOf({{kst::kKeyTraceAction, "CollectTelephonyLogs"}, {key, value}}), "") << key;
  }
}

using DumpIndicationTest = DeviceTest;

TEST_F(DumpIndicationTest, StandsWhileTheObjectLivesAndTouchesNothingElse) {
  const std::string path = paths.dumpIndication;
  for (const std::string left : {"", "tmp/Kestrane.dumping=left"}) {
    make(left);
    {
      const DumpIndication indication(path);
      EXPECT_TRUE(!indication.problem() && modeOf(path) == 0640);
      EXPECT_EQ(tree(), "tmp/Kestrane.dumping");
    }
    EXPECT_EQ(tree(), "tmp/");
  }
  for (const std::string other : {">/proc/none", "|", "/", "=another"}) {
    std::optional<DumpIndication> standing(path);
    unlink(path.c_str());
    make("tmp/Kestrane.dumping" + other);
    if (other == "=another" && chown(path.c_str(), 65533, 65533) != 0) {
      continue;  // an ordinary user cannot give a file away
    }
    standing.reset();
    EXPECT_THAT(DumpIndication(path).problem().value_or(""), testing::EndsWith("File exists"));
    DumpIndication::clear(path);
    EXPECT_EQ(tree(), "tmp/Kestrane.dumping" + other);
    remove(path.c_str());
  }
  make("file");
  EXPECT_THAT(DumpIndication(directory / "file/dumping").problem().value_or(""),
              testing::EndsWith("Not a directory"));
  EXPECT_EQ(DevicePaths("/").dumpIndication, "/tmp/Kestrane.dumping");
}

}  // namespace
}  // namespace collection
