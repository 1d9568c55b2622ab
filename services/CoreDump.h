#pragma once

#include <chrono>
#include <string>

#include "services/CollectionRequest.h"
#include "services/DevicePaths.h"
#include "services/Failure.h"

namespace services {

/// Has vexild write a core dump and waits for it, at most for `limit`. `name` becomes the name of
/// the finished dump in `paths.coreDumps`. A vexild that does not run, or ends before the dump is
/// finished, is noticed at once.
Failure takeCoreDump(const DevicePaths& paths, const CollectionRequest& request,
                     std::chrono::milliseconds limit, std::string& name);

}  // namespace services
