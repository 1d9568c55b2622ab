#pragma once

#include <string_view>

/// Whether a message can carry `bytes` as a text: UTF-8 (RFC 3629) without NUL and without
/// Unicode's noncharacters, which the bus library refuses like malformed text.
bool isMessageText(std::string_view bytes);
