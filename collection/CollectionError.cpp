#include "collection/CollectionError.h"

#include <cerrno>

#include "collection/Failure.h"
#include "platform/message/CommandResult.h"

namespace collection {

void throwCallFailed(const std::string& call, const std::string& path) {
  const bool isRoom =
      errno == ENOSPC || errno == EDQUOT || errno == EFBIG;  // the latter: RLIMIT_FSIZE
  throw CollectionError(isRoom ? kst::kResultNoRoom : kst::kResultCollectionFailed,
                        callFailed(call, path));
}

}  // namespace collection
