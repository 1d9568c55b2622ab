// What a collection tells of names and texts that others have chosen, and names of snapshots.

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <array>

#include "collection/PrintableText.h"
#include "collection/Report.h"
#include "collection/SnapshotName.h"
#include "logdump/TimestampSet.h"
#include "platform/message/Utf8.h"
#include "tests/fuzz/Check.h"

namespace {

using namespace collection;

void checkLines(const std::string& text, std::size_t lines) {
  check(static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) == lines,
        "one line for each thing told: " + text);
  check(isMessageText(text), "it is UTF-8: " + text);
  check(std::none_of(
            text.begin(), text.end(),
            [](char byte) { return (byte >= 0 && byte < ' ' && byte != '\n') || byte == 0x7F; }),
        "no control characters: " + text);
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

  CollectionRequest request;
  request.reason = printable(data.ConsumeRandomLengthString(64));
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
