// What a collection tells of names and texts that others have chosen, and names of snapshots.

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <array>

#include "collection/PrintableText.h"
#include "collection/Report.h"
#include "collection/Snapshots.h"
#include "logdump/TimestampSet.h"
#include "platform/message/Utf8.h"
#include "tests/fuzz/Check.h"

namespace {

using namespace collection;

void checkLines(const std::string& text, std::size_t lines) {
  check(static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) == lines,
        "one line for each thing told: " + text);
  check(isMessageText(text), "it is UTF-8: " + text);
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byteAt = [&text](std::size_t at) -> unsigned {
      return static_cast<unsigned char>(at < text.size() ? text[at] : 0);
    };
    const unsigned code = byteAt(i) << 16U | byteAt(i + 1) << 8U | byteAt(i + 2);
    const auto isBetween = [code](unsigned first, unsigned last) {
      return code >= first && code <= last;
    };
    check(byteAt(i) == '\n' || !(isBetween(0, 0x1FFFFF) || isBetween(0x7F0000, 0x7FFFFF) ||
                                 isBetween(0xC28000, 0xC29FFF)),
          "no control characters: " + text);
    check(!isBetween(0xD89C00, 0xD89CFF) && !isBetween(0xE2808E, 0xE2808F) &&
              !isBetween(0xE280A8, 0xE280AE) && !isBetween(0xE281A6, 0xE281A9),
          "nothing breaks or turns the line: " + text);
  }
}

void checkSnapshotName(FuzzedDataProvider& data) {
  static constexpr std::array kSuffixes{"-telephony", "-coredump.zip", "-diag"};
  const std::string suffix = data.PickValueInArray(kSuffixes);
  TimestampSet times;
  times.set({.tv_sec = data.ConsumeIntegralInRange<time_t>(0, 253'402'000'000),
             .tv_usec = data.ConsumeIntegralInRange<suseconds_t>(0, 999'999)},
            0);
  const SnapshotName made{times.toString(0, kTimestampDate | kTimestampMilliseconds), suffix};
  check(SnapshotName::read(made.text()) == made, made.text() + " is a snapshot's");

  const std::string name = data.ConsumeRandomLengthString(64);
  const auto read = SnapshotName::read(name);
  check(!read || read->text() == name, "the parts of a name make it up: " + name);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  FuzzedDataProvider data(bytes, size);
  checkSnapshotName(data);

  const CollectionRequest request{.reason = printable(data.ConsumeRandomLengthString(64))};
  Report report;
  std::size_t lines = 5;
  while (data.remaining_bytes() > 0) {
    const std::string text = data.ConsumeRandomLengthString(64);
    const std::string shown = printable(text);
    checkLines(shown, 0);
    check(printable(shown) == shown && shown.size() <= text.size(), "it is printable: " + shown);
    ++lines;
    if (data.ConsumeBool()) {
      report.remark(text);
      continue;
    }
    LogRecord record{.name = text, .size = data.ConsumeIntegral<std::uint64_t>()};
    record.modified.tv_sec = data.ConsumeIntegral<time_t>();
    record.fate = static_cast<Fate>(data.ConsumeIntegralInRange(0, 4));
    if (data.ConsumeBool()) {
      record.collected = data.ConsumeIntegral<std::uint64_t>();
    }
    record.why = data.ConsumeRandomLengthString(16);
    report.add(record);
    Report alone;
    const std::size_t heading = alone.info({}, {}).size();
    alone.add(record);
    check(alone.info({}, {}).size() <= heading + Report::sizeOf(record),
          "it is no longer: " + text);
  }
  checkLines(report.summary(), 0);
  const std::string info = report.info(request, {.tv_sec = 1'800'000'000, .tv_usec = 0});
  checkLines(info, lines + (report.fileCount() == 0 ? 1 : 0));
  check(info.size() <= report.infoSize(), "it is no larger than foretold: " + info);
  return 0;
}
