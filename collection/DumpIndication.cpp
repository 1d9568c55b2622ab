#include "collection/DumpIndication.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "collection/Folder.h"
#include "support/FileOperations.h"

namespace collection {
namespace {

using kst::support::Descriptor;

Descriptor openFolderOf(const std::string& path) {
  return Descriptor(kst::support::openPath(kst::support::parentDirectory(path),
                                           O_PATH | O_DIRECTORY | O_CLOEXEC, 0));
}

/// The folder's sticky bit keeps others from putting something else there in between.
void removeOwn(const Descriptor& folder, const std::string& name) {
  struct stat status = {};
  if (fstatat(folder.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
      S_ISREG(status.st_mode) && status.st_uid == geteuid()) {
    unlinkat(folder.get(), name.c_str(), 0);
  }
}

}  // namespace

DumpIndication::DumpIndication(const std::string& path)
    : name(kst::support::lastPathComponent(path)) {
  failure = makeFolder(kst::support::parentDirectory(path));
  if (failure) {
    return;
  }
  folder = openFolderOf(path);
  if (!folder) {
    failure = callFailed("open", kst::support::parentDirectory(path));
    return;
  }
  removeOwn(folder, name);
  constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  const Descriptor created(openat(folder.get(), name.c_str(), kFlags, 0640));
  if (!created) {
    failure = callFailed("open", path);
  }
}

DumpIndication::~DumpIndication() {
  if (!failure) {
    removeOwn(folder, name);
  }
}

void DumpIndication::clear(const std::string& path) {
  removeOwn(openFolderOf(path), kst::support::lastPathComponent(path));
}

}  // namespace collection
