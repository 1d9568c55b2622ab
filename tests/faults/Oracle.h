#pragma once

#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <set>
#include <string>

#include "trace/Trace.h"

/// What becomes of a command of "logdump", and sets of that.
using Outcomes = unsigned;
enum : Outcomes {
  kTelAnswered = 1,
  kTelFailed = 2,
  kTelRefused = 4,
  kBbAnswered = 8,
  kBbFailed = 16,
  kBbByHelper = 32,
  kBbUnhelped = 64,
  kAnswered = kTelAnswered | kBbAnswered,
  kGone = kTelRefused | kBbByHelper,     ///< while the manager is
  kAllGone = kTelRefused | kBbUnhelped,  ///< while it and the helper, or the bus, are
  kAny = 127
};

/// Timestamps of the real services.
inline const std::string kRealStamps = "20[-0-9]+";

/// Knows what a command prints that is answered by a manager with such timestamps, or by nobody.
struct Oracle {
  std::string stamps;  ///< a pattern
  std::map<std::string, int> counts;

  /// What became of the command. Fails the test if that is not allowed.
  Outcomes judge(const std::string& command, const std::string& output, Outcomes allowed) {
    const bool isBb = command.find("bb") != std::string::npos;
    const std::string heading = isBb ? "Baseband log collection: " : "Telephony log collection: ";
    const std::string failed = heading + "Failed\n";
    const std::string alone = heading + "Success \\(KST not running\\)\n";
    const std::string answer = heading + (isBb ? "Success \\(KST running\\)\n" : "Success\n") +
                               pathOf(stamps) +
                               (!isBb                     ? "-\\*\n"
                                : command.ends_with("bb") ? "-baseband.zip\n"
                                                          : "-bb-trace\n");
    const std::pair<std::string, std::string> outcomes[] = {
        {"tel answered", answer},
        {"tel failed", failed},
        {"tel refused", ""},
        {"bb answered", answer},
        {"bb failed", failed},
        {"bb by helper", alone + pathOf(kRealStamps) + "-bb-trace\n"},
        {"bb unhelped", alone + "Path = " + kst::trace::kScratchFolder + "DIAG.scratch\n"}};
    Outcomes outcome = 1;
    for (const auto& [name, pattern] : outcomes) {
      std::smatch match;
      if ((allowed & outcome) != 0 && name.starts_with("bb") == isBb &&
          std::regex_match(output, match, std::regex(pattern)) &&
          (match.length(1) == 0 || stampsSeen.insert(match[1]).second)) {
        ++counts[name];
        return outcome;
      }
      outcome *= 2;
    }
    ADD_FAILURE() << command << " printed " << output << " but may only " << allowed;
    return 0;
  }

 private:
  static std::string pathOf(const std::string& stamps) {
    return std::string("Path = ") + kst::trace::kSnapshotFolder + "log-bb-(" + stamps + ")";
  }

  std::set<std::string> stampsSeen;
};
