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

Descriptor openOwnFolder(const std::string& path, mode_t mode) {
  if (auto failure = makeFolder(kst::support::parentDirectory(path))) {
    throw CollectionError(kst::kResultCollectionFailed, *failure);
  }
  if (mkdir(path.c_str(), mode) != 0 && errno != EEXIST) {
    throwCallFailed("mkdir", path);
  }
  Descriptor folder = kst::support::openFolder(AT_FDCWD, path);
  struct stat status = {};
  if (!folder || fstat(folder.get(), &status) != 0) {
    throwCallFailed("open", path);
  }
  if (status.st_uid != geteuid()) {
    throw CollectionError(
        kst::kResultCollectionFailed,
        path + " belongs to the user " + std::to_string(status.st_uid) + ", not to the service");
  }
  if ((status.st_mode & 07777 & ~mode) != 0 && fchmod(folder.get(), status.st_mode & mode) != 0) {
    throwCallFailed("chmod", path);
  }
  return folder;
}

Descriptor createOwnFile(int directory, const std::string& name) {
  constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  Descriptor file(openat(directory, name.c_str(), kFlags, kOwnFileMode));
  if (file && fchmod(file.get(), kOwnFileMode) != 0) {
    file.close();
  }
  return file;
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
