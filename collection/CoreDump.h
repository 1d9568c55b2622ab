#pragma once

#include "collection/CollectionRequest.h"
#include "collection/Deadline.h"
#include "collection/DevicePaths.h"
#include "collection/Report.h"
#include "collection/SourceWalk.h"

namespace collection {

/// Has vexild write a core dump, waits for it, at most for `limit`, and opens it; its record is
/// named as in the snapshot. A vexild that does not run, or ends before the dump is finished, is
/// noticed at once. What is put among the dumps meanwhile and is no regular file goes to `report`.
/// Throws CollectionError (kResultNoCoreDump, or as `deadline.throwIfCancelled` does).
OpenLog takeCoreDump(const DevicePaths& paths, const CollectionRequest& request,
                     std::chrono::milliseconds limit, const Deadline& deadline, Report& report);

}  // namespace collection
