#include "collection/Progress.h"

#include <algorithm>

#include "collection/CollectionError.h"
#include "platform/message/CommandResult.h"

namespace collection {

Progress::Progress(std::chrono::milliseconds limit, const std::function<bool()>& isCancelled)
    : end(Clock::now() + limit), cancelled(isCancelled) {}

void Progress::check() const {
  if (cancelled()) {
    throw CollectionError(kst::kResultStopping, "the collection was broken off");
  }
}

Progress::Clock::time_point Progress::deadline(std::chrono::milliseconds limit) const {
  return std::min(Clock::now() + limit, end);
}

}  // namespace collection
