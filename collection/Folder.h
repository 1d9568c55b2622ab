#pragma once

#include <string>

#include "collection/Failure.h"

namespace collection {

/// Makes a folder (mode 0755) and those above it where they are missing, also while other services
/// and daemons do the same.
Failure makeFolder(const std::string& path);

}  // namespace collection
