#pragma once

#include <string>
#include <vector>

#include "collection/Failure.h"

namespace collection {

/// Makes the zip archive `path` of the files `names`, which stand below `folder` and are named so
/// in the archive. On failure nothing stands at `path`.
Failure writeZip(const std::string& path, const std::string& folder,
                 const std::vector<std::string>& names);

}  // namespace collection
