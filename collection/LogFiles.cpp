#include "collection/LogFiles.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "collection/DevicePaths.h"
#include "support/DirectoryStream.h"
#include "support/FileOperations.h"

namespace collection {

Failure listLogFiles(const std::string& folder, const std::string& name,
                     std::vector<LogFile>& files) {
  if (kst::support::isSymbolicLink(folder)) {
    return folder + " is a link";
  }
  std::vector<std::string> entries;
  kst::support::listDirectory(folder, entries);
  // Every folder has at least the entry ".".
  if (entries.empty()) {
    if (errno == ENOENT) {
      return {};
    }
    return callFailed("opendir", folder);
  }
  std::sort(entries.begin(), entries.end());

  for (const std::string& entry : entries) {
    if (kst::support::isDotName(entry)) {
      continue;
    }
    const std::string path = kst::support::childPath(folder, entry);
    const std::string entryName = kst::support::childPath(name, entry);
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) {
      if (errno == ENOENT) {
        continue;
      }
      return callFailed("lstat", path);
    }
    if (S_ISREG(status.st_mode)) {
      files.push_back({path, entryName, static_cast<std::size_t>(status.st_size)});
    } else if (S_ISDIR(status.st_mode)) {
      if (auto failure = listLogFiles(path, entryName, files)) {
        return failure;
      }
    }
  }
  return {};
}

Failure lockFolder(const std::string& folder, kst::support::Descriptor& lock) {
  const std::string lockFile = lockFileOf(folder);
  lock = kst::support::Descriptor(kst::support::lockFileShared(lockFile));
  if (!lock && errno != ENOENT) {
    return callFailed("lock", lockFile);
  }
  return {};
}

}  // namespace collection
