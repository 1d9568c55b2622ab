#include "support/TreeRemoval.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>
#include <vector>

namespace kst::support {

namespace {

struct Entry {
  std::string name;
  bool isDirectory;  // as far as the file system has told in the listing
};

/// A directory between the given one and the one that is being emptied, both included.
struct Level {
  std::vector<Entry> entries;  // that are still to be removed, the next one last
  // Which directory it is, known once its descriptor is closed. The time of birth would tell more,
  // but a copy-up of overlayfs changes it.
  dev_t device = 0;
  ino_t inode = 0;
};

/// False if not even "." can be read.
bool list(DirectoryStream& directory, Level& level) {
  bool isReadable = false;
  while (const dirent* entry = directory.next()) {
    isReadable = true;
    if (!isDotName(entry->d_name)) {
      level.entries.push_back({entry->d_name, entry->d_type == DT_DIR});
    }
  }
  std::reverse(level.entries.begin(), level.entries.end());
  return isReadable;
}

class Removal {
 public:
  Removal(DirectoryStream directory, const EntryChoice& choice)
      : here(std::move(directory)), levels(1), isChosen(choice) {
    list(here, levels.back());
  }

  bool run() {
    while (levels.size() > 1 || !levels.back().entries.empty()) {
      if (!(levels.back().entries.empty() ? ascend() : removeNext())) {
        return false;
      }
    }
    return true;
  }

 private:
  /// Removes the next entry, or goes down into it.
  bool removeNext() {
    std::vector<Entry>& entries = levels.back().entries;
    const Entry& entry = entries.back();
    if (levels.size() == 1 && !isChosen(here.descriptor(), entry.name)) {
      entries.pop_back();
      return true;
    }
    if (entry.isDirectory || unlinkat(here.descriptor(), entry.name.c_str(), 0) != 0) {
      if (!closeParent()) {
        return false;
      }
      Level below;
      DirectoryStream directory = openDirectory(here.descriptor(), entry.name);
      if (directory.isOpen() && list(directory, below)) {
        // The entry stays listed until the way back.
        parent = std::exchange(here, std::move(directory));
        levels.push_back(std::move(below));
        return true;
      }
      if (!removeFileAt(here.descriptor(), entry.name)) {
        return false;
      }
    }
    entries.pop_back();
    return true;
  }

  /// Goes back up and removes there the directory that it has emptied.
  bool ascend() {
    if (!parent.isOpen() && !openParent()) {
      return false;
    }
    here = std::move(parent);
    levels.pop_back();
    std::vector<Entry>& entries = levels.back().entries;
    unlinkat(here.descriptor(), entries.back().name.c_str(), AT_REMOVEDIR);
    entries.pop_back();
    return true;
  }

  /// Makes room for another descriptor.
  bool closeParent() {
    if (parent.isOpen()) {
      struct stat status = {};
      if (fstat(parent.descriptor(), &status) != 0) {
        return false;
      }
      Level& above = levels[levels.size() - 2];
      above.device = status.st_dev;
      above.inode = status.st_ino;
      parent.close();
    }
    return true;
  }

  /// The way back up, if the directory above is still the one that it came from.
  bool openParent() {
    DirectoryStream found = openDirectory(here.descriptor(), "..");
    struct stat status = {};
    if (!found.isOpen() || fstat(found.descriptor(), &status) != 0) {
      return false;
    }
    const Level& above = levels[levels.size() - 2];
    if (status.st_dev != above.device || status.st_ino != above.inode) {
      errno = ENOENT;
      return false;
    }
    parent = std::move(found);
    return true;
  }

  DirectoryStream here;       // the directory that is being emptied
  DirectoryStream parent;     // the one above, unless another one was open below `here` since
  std::vector<Level> levels;  // from the given directory to `here`
  const EntryChoice& isChosen;
};

}  // namespace

bool removeEntries(DirectoryStream directory, const EntryChoice& isChosen) {
  return Removal(std::move(directory), isChosen).run();
}

bool removeFileAt(int directory, const std::string& path) {
  const char* name = path.c_str();
  return unlinkat(directory, name, 0) == 0 ||
         (errno == EISDIR && unlinkat(directory, name, AT_REMOVEDIR) == 0) ||
         unlinkat(directory, name, 0) == 0;
}

}  // namespace kst::support
