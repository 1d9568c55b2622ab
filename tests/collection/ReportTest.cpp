#include "collection/Report.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <string>

#include "collection/PrintableText.h"

namespace collection {
namespace {

TEST(PrintableTextTest, PutsAQuestionMarkForWhatIsNotSafeToPrint) {
  using namespace std::string_literals;
  const std::pair<std::string, std::string> cases[] = {
      {" ~\u00a0\u00e4\u20ac\U0001f600", " ~\u00a0\u00e4\u20ac\U0001f600"},
      {"a\nb\r\t\0\x1b[0m\x7f"s, "a?b????[0m?"},
      {"\u0080\u009f|\u2028\u2029|\u2027\u202f", "??|??|\u2027\u202f"},
      // NOLINTNEXTLINE(misc-misleading-bidirectional): what this is about
      {"\u061c\u200e\u200f\u202a\u202e\u2066\u2069|\u061b\u200d\u2065",
       "???????|\u061b\u200d\u2065"},
      {"\xff\xfe\x80 \xc3", "??? ?"},
      {"\xc0\xaf \xed\xa0\x80 \xe2\x82", "?? ??? ??"}};
  for (const auto& [text, expected] : cases) {
    EXPECT_EQ(printable(text), expected);
  }
}

TEST(ReportTest, TellsOfEveryEntryInTheOrderOfTheirNames) {
  setenv("TZ", "UTC-1", 1);  // NOLINT(concurrency-mt-unsafe): the test has one thread
  tzset();
  Report report;
  EXPECT_EQ(report.summary(), "");
  report.add({.name = "b", .size = 5, .modified = {.tv_sec = 59, .tv_nsec = 0}, .collected = 5});
  report.add({.name = "f/", .fate = Fate::kUnreadable, .why = "closed\n"});
  report.add({.name = "c", .size = 5, .fate = Fate::kCut, .collected = 2, .why = "max_source"});
  report.add({.name = "d", .size = 5, .fate = Fate::kCut, .why = "the time was over"});
  report.add({.name = "a\x1b", .fate = Fate::kLeftOut, .why = "a link"});
  report.add({.name = "e", .fate = Fate::kVanished});
  EXPECT_EQ(report.fileCount(), 2);
  EXPECT_EQ(report.firstReason(Fate::kUnreadable), "f/: closed\n");
  report.remark("told\n");
  EXPECT_EQ(report.summary(),
            "told?; 2 logs are cut (c: max_source); 1 log is gone (e); 1 log is unreadable (f/: "
            "closed?)");
  EXPECT_EQ(report.info({LogKind::kBaseband, false, false, "test", "", ""}, {}),
            "Reason: test\n"
            "Time: 1970.01.01_01-00-00+0100\n"
            "Action: CollectBasebandLogs\n"
            "Compress: false\n"
            "Files: 2\n"
            "  a?: left out: a link\n"
            "  b (5 bytes, 1970.01.01_01-00-59+0100): whole\n"
            "  c (5 bytes, 1970.01.01_01-00-00+0100): cut at 2 bytes: max_source\n"
            "  d (5 bytes, 1970.01.01_01-00-00+0100): cut at 0 bytes: the time was over\n"
            "  e: vanished\n"
            "  f/: unreadable: closed?\n"
            "Remark: told?\n");
}

}  // namespace
}  // namespace collection
