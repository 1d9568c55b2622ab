#pragma once

#include <chrono>
#include <string>

#include "collection/CollectionRequest.h"
#include "collection/DevicePaths.h"
#include "collection/Failure.h"

namespace collection {

/// Has vexild write a core dump and waits for it, at most for `limit`. `name` becomes the name of
/// the finished dump in `paths.coreDumps`. A vexild that does not run, or ends before the dump is
/// finished, is noticed at once.
Failure takeCoreDump(const DevicePaths& paths, const CollectionRequest& request,
                     std::chrono::milliseconds limit, std::string& name);

}  // namespace collection
