#pragma once

/// Terminal sequences. Nothing resets more than the foreground.
namespace terminal {

inline constexpr const char* kRed = "\033[31m";
inline constexpr const char* kGreen = "\033[32m";
inline constexpr const char* kDefaultColor = "\033[39m";

}  // namespace terminal
