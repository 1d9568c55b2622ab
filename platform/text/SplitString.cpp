#include "platform/text/SplitString.h"

namespace kst {

std::vector<std::string> splitString(const std::string& text, char separator) {
  std::vector<std::string> pieces;
  std::string::size_type end = 0;
  for (auto begin = text.find_first_not_of(separator); begin != std::string::npos;
       begin = text.find_first_not_of(separator, end)) {
    end = text.find(separator, begin);
    pieces.push_back(text.substr(begin, end - begin));
  }
  return pieces;
}

}  // namespace kst
