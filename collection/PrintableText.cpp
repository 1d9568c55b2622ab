#include "collection/PrintableText.h"

#include <algorithm>

#include "platform/message/Utf8.h"

namespace collection {

std::string printable(std::string text) {
  const bool keepMultibyte = isMessageText(text);
  std::replace_if(
      text.begin(), text.end(),
      [keepMultibyte](char character) {
        const auto byte = static_cast<unsigned char>(character);
        return byte < 0x20 || byte == 0x7f || (byte >= 0x80 && !keepMultibyte);
      },
      '?');
  return text;
}

}  // namespace collection
