#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "collection/CollectionRequest.h"
#include "collection/DumpIndication.h"
#include "platform/client/Constants.h"
#include "tests/collection/DeviceTest.h"

namespace collection {
namespace {

TEST(CollectionRequestTest, ReadsEveryActionAndFillsInWhatIsMissing) {
  MessageDict request;
  request.set("another", std::int64_t{1});
  request.set(kst::kKeyTraceAction, kst::kCollectBasebandLogs);
  auto read = readCollectionRequest(request).value();
  EXPECT_TRUE(read.kind == LogKind::kBaseband && read.compress && read.isIndicated);
  EXPECT_TRUE(read.reason == kst::kUnknown && read.resetSubType == kst::kUnknown);
  request.set(kst::kKeyTraceAction, kst::kCollectTelephonyLogs);
  request.set(kst::kKeyTraceDumpStateReason, "two\nlines\x7f");
  request.set(kst::kKeyTraceDumpStatePerformCompression, false);
  request.set(kst::kKeyBasebandResetReason, "an\tother");
  request.set(kst::kKeyBasebandResetType, "Ha\trd");
  request.set(kst::kKeyBasebandResetSubType, "Sub\x1b");
  read = readCollectionRequest(request).value();
  EXPECT_TRUE(read.kind == LogKind::kTelephony && !read.compress && read.isIndicated);
  EXPECT_EQ(read.reason, "two?lines?");
  request.set(kst::kKeyTraceAction, kst::kCollectTelephonyLogsWithCoredump);
  read = readCollectionRequest(request).value();
  EXPECT_TRUE(read.kind == LogKind::kTelephonyWithCoredump && read.reason == "an?other");
  EXPECT_TRUE(read.resetType == "Ha?rd" && read.resetSubType == "Sub?");
}

TEST(CollectionRequestTest, RefusesAnythingElse) {
  EXPECT_FALSE(readCollectionRequest({}));
  const std::pair<const char*, std::vector<MessageValue>> cases[] = {
      {kst::kKeyTraceAction,
       {{}, "", "collecttelephonylogs", "CollectTelephonyLogsX", true, std::int64_t{1}}},
      {kst::kKeyTraceDumpStatePerformCompression, {{}, "true", std::int64_t{1}, MessageDict()}},
      {kst::kKeyTraceDumpStateReason, {{}, true, std::int64_t{1}, MessageDict()}},
      {kst::kKeyBasebandResetReason, {true}},
      {kst::kKeyBasebandResetType, {{}}},
      {kst::kKeyBasebandResetSubType, {std::int64_t{1}}}};
  for (const auto& [key, values] : cases) {
    for (const MessageValue& value : values) {
      MessageDict request;
      request.set(kst::kKeyTraceAction, kst::kCollectTelephonyLogs);
      EXPECT_TRUE(readCollectionRequest(request));
      request.set(key, value);
      EXPECT_FALSE(readCollectionRequest(request)) << key;
    }
  }
}

class DumpIndicationTest : public DeviceTest {
 protected:
  const std::string path = paths.dumpIndication;
  const std::string target = directory / "target";
};

TEST_F(DumpIndicationTest, StandsWhileTheObjectLivesInPlaceOfWhatWasLeft) {
  for (const bool isLeft : {false, true}) {
    isLeft ? makeFile("tmp/Kestrane.dumping", "of a killed process") : "";
    {
      const DumpIndication indication(path);
      EXPECT_TRUE(!indication.problem() && contentOf(path).empty() && modeOf(path) == 0640);
    }
    EXPECT_FALSE(isThere(path));
  }
  makeFile("tmp/Kestrane.dumping", "of a killed process");
  DumpIndication::clear(path);
  DumpIndication::clear(path);
  EXPECT_FALSE(isThere(path));
}

TEST_F(DumpIndicationTest, LeavesEverythingElseAlone) {
  makeFile("tmp/another");
  const std::function<void()> deeds[] = {[&] { makeLink("tmp/Kestrane.dumping", target); },
                                         [&] { mkfifo(path.c_str(), 0644); },
                                         [&] { mkdir(path.c_str(), 0755); },
                                         [&] {
                                           makeFile("tmp/Kestrane.dumping", "another user's");
                                           // An ordinary user cannot give a file away.
                                           if (chown(path.c_str(), 65533, 65533) != 0) {
                                             unlink(path.c_str());
                                             mkdir(path.c_str(), 0755);
                                           }
                                         }};
  const auto identity = [&] { return std::pair(statusOf(path).st_ino, statusOf(path).st_mode); };
  for (const auto& deed : deeds) {
    std::optional<DumpIndication> standing(path);
    EXPECT_FALSE(standing->problem());
    unlink(path.c_str());
    deed();
    const auto before = identity();
    standing.reset();
    EXPECT_THAT(DumpIndication(path).problem().value_or(""), testing::EndsWith("File exists"));
    DumpIndication::clear(path);
    EXPECT_EQ(identity(), before);
    EXPECT_EQ(remove(path.c_str()), 0);
  }
  EXPECT_FALSE(isThere(target));
  makeFile("file");
  EXPECT_THAT(DumpIndication(directory / "file/dumping").problem().value_or(""),
              testing::EndsWith("Not a directory"));
}

}  // namespace
}  // namespace collection
