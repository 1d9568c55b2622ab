#pragma once

#include <string>
#include <vector>

namespace kst {

/// The pieces of `text` between occurrences of `separator`, in order. Empty pieces (from a leading,
/// trailing or doubled separator) are left out.
std::vector<std::string> splitString(const std::string& text, char separator);

}  // namespace kst

// Named without the namespace by code above the port; only the symbol must not clash with that of
// a program that links the installed library.
using kst::splitString;
