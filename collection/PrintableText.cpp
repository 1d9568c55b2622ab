#include "collection/PrintableText.h"

#include <algorithm>

#include "platform/message/Utf8.h"

namespace collection {
namespace {

bool isSafe(char32_t code) {
  const auto isBetween = [code](char32_t first, char32_t last) {
    return code >= first && code <= last;
  };
  const bool isControl = code < 0x20 || isBetween(0x7F, 0x9F);
  const bool isSeparator = isBetween(0x2028, 0x2029);
  const bool isBidirectional = code == 0x061C || isBetween(0x200E, 0x200F) ||
                               isBetween(0x202A, 0x202E) || isBetween(0x2066, 0x2069);
  return !isControl && !isSeparator && !isBidirectional;
}

}  // namespace

std::string printable(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  while (!text.empty()) {
    char32_t code = 0;
    const std::size_t length = messageCharacterLength(text, code);
    if (length > 0 && isSafe(code)) {
      result += text.substr(0, length);
    } else {
      result += '?';
    }
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return result;
}

}  // namespace collection
