#include "collection/Report.h"

#include <algorithm>
#include <array>
#include <utility>

#include "collection/PrintableText.h"
#include "logdump/TimestampSet.h"

namespace collection {
namespace {

std::string zoneTime(const timeval& time) {
  TimestampSet timestamps;
  timestamps.set(time, 0);
  return timestamps.toString(0, kTimestampDateZone);
}

std::string fateText(const LogRecord& record) {
  switch (record.fate) {
    case Fate::kWhole:
      return "whole";
    case Fate::kCut:
      return "cut at " + std::to_string(record.collected.value_or(0)) + " bytes: " + record.why;
    case Fate::kVanished:
      return "vanished";
    case Fate::kUnreadable:
      return "unreadable: " + record.why;
    case Fate::kLeftOut:
      return "left out: " + record.why;
  }
  return {};
}

std::string line(const LogRecord& record) {
  std::string text = "  " + printable(record.name);
  if (record.fate == Fate::kWhole || record.fate == Fate::kCut) {
    text += " (" + std::to_string(record.size) + " bytes, " +
            zoneTime({.tv_sec = record.modified.tv_sec, .tv_usec = 0}) + ")";
  }
  return text + ": " + printable(fateText(record)) + "\n";
}

}  // namespace

std::size_t Report::sizeOf(const LogRecord& record) {
  constexpr std::size_t kRest = 150;  // numbers and times
  return record.name.size() + record.why.size() + kRest;
}

void Report::add(LogRecord record) {
  size += sizeOf(record);
  records.push_back(std::move(record));
}

void Report::remark(const std::string& text) {
  size += text.size() + sizeof "Remark: \n";
  remarks.push_back(text);
}

std::size_t Report::count(Fate fate) const {
  return static_cast<std::size_t>(
      std::count_if(records.begin(), records.end(),
                    [fate](const LogRecord& record) { return record.fate == fate; }));
}

std::size_t Report::fileCount() const {
  return static_cast<std::size_t>(
      std::count_if(records.begin(), records.end(),
                    [](const LogRecord& record) { return record.collected.has_value(); }));
}

std::string Report::firstReason(Fate fate) const {
  const auto found = std::find_if(records.begin(), records.end(),
                                  [fate](const LogRecord& record) { return record.fate == fate; });
  // Enough to know the log by; the answer is one line.
  constexpr std::size_t kLongestName = 200;
  return found == records.end()
             ? ""
             : found->name.substr(0, kLongestName) + (found->why.empty() ? "" : ": " + found->why);
}

std::string Report::info(const CollectionRequest& request, const timeval& start) {
  std::sort(records.begin(), records.end(),
            [](const LogRecord& left, const LogRecord& right) { return left.name < right.name; });
  std::string text = "Reason: " + request.reason + "\nTime: " + zoneTime(start) +
                     "\nAction: " + actionOf(request.kind) +
                     "\nCompress: " + (request.compress ? "true" : "false") +
                     "\nFiles: " + std::to_string(fileCount()) + "\n";
  for (const LogRecord& record : records) {
    text += line(record);
  }
  if (fileCount() == 0) {
    text += "No log file was found.\n";
  }
  for (const std::string& remark : remarks) {
    text += "Remark: " + printable(remark) + "\n";
  }
  return text;
}

std::string Report::summary() const {
  std::string text;
  const auto append = [&text](const std::string& more) {
    text += (text.empty() ? "" : "; ") + printable(more);
  };
  for (const std::string& remark : remarks) {
    append(remark);
  }
  constexpr std::array kToldOf = {std::pair(Fate::kCut, "cut"), std::pair(Fate::kVanished, "gone"),
                                  std::pair(Fate::kUnreadable, "unreadable")};
  for (const auto& [fate, word] : kToldOf) {
    if (const std::size_t number = count(fate); number > 0) {
      append(std::to_string(number) + (number == 1 ? " log is " : " logs are ") + word + " (" +
             firstReason(fate) + ")");
    }
  }
  return text;
}

}  // namespace collection
