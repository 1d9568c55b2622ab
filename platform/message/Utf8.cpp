#include "platform/message/Utf8.h"

#include <array>

namespace {

bool isCharacter(char32_t code) {
  const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
  const bool noncharacter = (code >= 0xFDD0 && code <= 0xFDEF) || (code & 0xFFFE) == 0xFFFE;
  return code != 0 && code <= 0x10FFFF && !surrogate && !noncharacter;
}

std::size_t continuationCount(unsigned char lead) {
  if (lead < 0x80) {
    return 0;
  }
  return lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
}

}  // namespace

std::size_t messageCharacterLength(std::string_view bytes, char32_t& code) {
  constexpr std::array<char32_t, 4> kSmallest = {0, 0x80, 0x800,
                                                 0x10000};  // below it: an overlong form

  const auto lead = static_cast<unsigned char>(bytes[0]);
  const std::size_t count = continuationCount(lead);
  const bool isContinuation = (lead & 0xC0) == 0x80;
  if (isContinuation || lead >= 0xF8 || bytes.size() <= count) {
    return 0;
  }
  code = count == 0 ? lead : lead & (0x3FU >> count);
  for (std::size_t i = 1; i <= count; ++i) {
    const auto byte = static_cast<unsigned char>(bytes[i]);
    if ((byte & 0xC0) != 0x80) {
      return 0;
    }
    code = code << 6 | (byte & 0x3F);
  }
  return code >= kSmallest[count] && isCharacter(code) ? count + 1 : 0;
}

bool isMessageText(std::string_view bytes) {
  char32_t code = 0;
  while (!bytes.empty()) {
    const std::size_t length = messageCharacterLength(bytes, code);
    if (length == 0) {
      return false;
    }
    bytes.remove_prefix(length);
  }
  return true;
}
