#pragma once

#include <string>
#include <vector>

namespace kst {

/// The pieces of `text` between occurrences of `separator`, in order. Empty pieces (from a leading,
/// trailing or doubled separator) are left out.
std::vector<std::string> splitString(const std::string& text, char separator);

}  // namespace kst
