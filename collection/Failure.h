#pragma once

#include <optional>
#include <string>

namespace collection {

/// What did not work, for people; nothing when all did.
using Failure = std::optional<std::string>;

/// "CALL PATH: REASON", the reason being that of the current `errno`.
std::string callFailed(const std::string& call, const std::string& path);

}  // namespace collection
