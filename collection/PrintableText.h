#pragma once

#include <string>
#include <string_view>

namespace collection {

/// `text` on one line, valid UTF-8, and safe to print on a terminal: "?" stands for every control
/// character (C0 and C1), for every character that separates lines or changes the direction of what
/// follows, and for every byte that belongs to no character.
std::string printable(std::string_view text);

}  // namespace collection
