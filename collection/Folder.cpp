#include "collection/Folder.h"

#include <cerrno>

#include "support/FileOperations.h"

namespace collection {

Failure makeFolder(const std::string& path) {
  constexpr int kAttempts = 20;  // more than a path of ours has levels
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (kst::support::makeDirectory(path, 0755, true)) {
      return {};
    }
    // Somebody else made a level right after it was found missing: the next attempt finds it there.
    if (errno != EEXIST) {
      break;
    }
  }
  return callFailed("mkdir", path);
}

}  // namespace collection
