#include "simulator/LogLines.h"

#include <utility>

#include "logdump/TimestampSet.h"

namespace simulator {

LogLines::LogLines(std::string daemonName, std::span<const char* const> linePatterns)
    : daemon(std::move(daemonName)), patterns(linePatterns), random(std::random_device{}()) {}

std::string LogLines::next() {
  std::string message = patterns[below(patterns.size())];
  for (char& character : message) {
    if (character == '#') {
      character = static_cast<char>('0' + below(10));
    }
  }
  return TimestampSet().toString(0, kTimestampDate | kTimestampMilliseconds) + " " + daemon + ": " +
         message;
}

unsigned LogLines::below(std::size_t limit) {
  return std::uniform_int_distribution<unsigned>(0, static_cast<unsigned>(limit) - 1)(random);
}

}  // namespace simulator
