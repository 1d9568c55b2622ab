#include "logdump/DumpArguments.h"

#include <utility>

void parseDumpArguments(std::list<std::string>& words, bool& compress, std::string& reason) {
  reason = "[ksttool] User triggered";
  while (!words.empty()) {
    const std::string word = std::move(words.front());
    words.pop_front();
    if (word != "nocompress") {
      reason = "[ksttool] " + word;
      return;
    }
    compress = false;
  }
}
