#include "collection/OwnFolder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "collection/CollectionError.h"
#include "collection/Folder.h"
#include "platform/message/CommandResult.h"
#include "support/FileOperations.h"
#include "support/TreeRemoval.h"

namespace collection {

using kst::support::Descriptor;

Descriptor openOwnFolder(const std::string& path) {
  constexpr mode_t kMode = 0750;
  if (auto failure = makeFolder(kst::support::parentDirectory(path))) {
    throw CollectionError(kst::kResultCollectionFailed, *failure);
  }
  if (mkdir(path.c_str(), kMode) != 0 && errno != EEXIST) {
    throwCallFailed("mkdir", path);
  }
  Descriptor folder(
      kst::support::openPath(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC, 0));
  struct stat status{};
  if (!folder || fstat(folder.get(), &status) != 0) {
    throwCallFailed("open", path);
  }
  if (status.st_uid != geteuid()) {
    throw CollectionError(
        kst::kResultCollectionFailed,
        path + " belongs to the user " + std::to_string(status.st_uid) + ", not to the service");
  }
  if ((status.st_mode & 07777 & ~kMode) != 0 && fchmod(folder.get(), status.st_mode & kMode) != 0) {
    throwCallFailed("chmod", path);
  }
  return folder;
}

bool removeEntry(int directory, const std::string& name) {
  const char* const entry = name.c_str();
  if (unlinkat(directory, entry, 0) == 0 || errno == ENOENT) {
    return true;
  }
  kst::support::DirectoryStream tree = kst::support::openDirectory(directory, name);
  const auto all = [](int, const std::string&) { return true; };
  return tree.isOpen() && kst::support::removeEntries(std::move(tree), all) &&
         unlinkat(directory, entry, AT_REMOVEDIR) == 0;
}

}  // namespace collection
