#pragma once

#include <string>

namespace collection {

/// `text` on one line and fit for a message: control characters become "?", and so does every byte
/// that is not ASCII if the text as a whole is not valid UTF-8.
std::string printable(std::string text);

}  // namespace collection
