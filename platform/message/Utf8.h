#pragma once

#include <cstddef>
#include <string_view>

/// The length in bytes of the character at the front of `bytes`, which are not empty; 0 when they
/// do not begin with one that a message can carry (see isMessageText). `code` becomes its code
/// point.
std::size_t messageCharacterLength(std::string_view bytes, char32_t& code);

/// Whether a message can carry `bytes` as a text: UTF-8 (RFC 3629) without NUL and without
/// Unicode's noncharacters, which the bus library refuses like malformed text.
bool isMessageText(std::string_view bytes);
