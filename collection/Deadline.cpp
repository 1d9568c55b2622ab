#include "collection/Deadline.h"

#include <algorithm>

#include "collection/CollectionError.h"
#include "platform/message/CommandResult.h"

namespace collection {

Deadline::Deadline(std::chrono::milliseconds limit, const std::function<bool()>& isCancelled)
    : end(Clock::now() + limit), cancelled(isCancelled) {}

void Deadline::throwIfCancelled() const {
  if (isCancelled()) {
    throw CollectionError(kst::kResultStopping, "the collection was broken off");
  }
}

Deadline::Clock::time_point Deadline::orAfter(std::chrono::milliseconds limit) const {
  return std::min(Clock::now() + limit, end);
}

}  // namespace collection
