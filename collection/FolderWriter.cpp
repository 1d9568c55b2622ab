#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "collection/CollectionError.h"
#include "collection/OwnFolder.h"
#include "collection/SnapshotWriter.h"
#include "support/Descriptor.h"
#include "support/DirectoryStream.h"
#include "support/FileOperations.h"

namespace collection {
namespace {

using kst::support::Descriptor;

constexpr mode_t kFolderMode = 0750;

/// What a file takes on the disk beside its content: the rest of its last block, and its name.
constexpr std::uint64_t kFileOverhead = 5120;

/// Makes the folder and opens it; with `mayExist` one that is there will do, and none is given if
/// the name is that of a file, or too long.
Descriptor enterFolder(int parent, const std::string& name, bool mayExist) {
  const bool isNew = mkdirat(parent, name.c_str(), kFolderMode) == 0;
  if (!isNew && !(mayExist && errno == EEXIST)) {
    if (mayExist && errno == ENAMETOOLONG) {
      return {};
    }
    throwCallFailed("mkdir", name);
  }
  Descriptor folder = kst::support::openFolder(parent, name);
  if (!folder && errno == ENOTDIR) {
    return folder;
  }
  if (!folder || (isNew && fchmod(folder.get(), kFolderMode) != 0)) {
    throwCallFailed("open", name);
  }
  return folder;
}

bool isAllZeros(std::string_view bytes) {
  return bytes.empty() || (bytes.front() == '\0' &&
                           std::memcmp(bytes.data(), bytes.data() + 1, bytes.size() - 1) == 0);
}

class FolderWriter : public SnapshotWriter {
 public:
  FolderWriter(int directory, const std::string& folderName)
      : top(enterFolder(directory, folderName, false)) {}

  bool begin(const LogRecord& record) override {
    const std::size_t nameBegin = record.name.rfind('/') + 1;  // 0 without a "/"
    if (!enter(record.name.substr(0, nameBegin))) {
      return false;
    }
    name = record.name;
    modified = record.modified;
    position = 0;
    file = createOwnFile(here(), name.substr(nameBegin));
    if (!file && (errno == EEXIST || errno == EISDIR || errno == ENAMETOOLONG)) {
      return false;
    }
    if (!file) {
      throwCallFailed("open", name);
    }
    taken += kFileOverhead;
    return true;
  }

  void write(std::string_view bytes) override {
    position += static_cast<off_t>(bytes.size());
    // A memory image is half empty: what holds nothing takes no room.
    if (isAllZeros(bytes)) {
      endsInHole = true;
      if (lseek(file.get(), position, SEEK_SET) < 0) {
        throwCallFailed("lseek", name);
      }
      return;
    }
    endsInHole = false;
    while (!bytes.empty()) {
      const ssize_t count = ::write(file.get(), bytes.data(), bytes.size());
      if (count < 0 && errno != EINTR) {
        throwCallFailed("write", name);
      }
      const auto done = static_cast<std::size_t>(std::max<ssize_t>(count, 0));
      taken += done;
      bytes.remove_prefix(done);
    }
  }

  void end() override {
    const timespec times[] = {modified, modified};
    if ((endsInHole && ftruncate(file.get(), position) != 0) || futimens(file.get(), times) != 0) {
      throwCallFailed("write", name);
    }
    endsInHole = false;
    file.close();
  }

  void finish() override {
    // One call for any number of files.
    if (syncfs(top.get()) != 0) {
      throwCallFailed("syncfs", "the snapshot");
    }
  }

  [[nodiscard]] std::uint64_t room() const override { return taken; }

 private:
  [[nodiscard]] int here() const { return folder ? folder.get() : top.get(); }

  /// `path` is that of a folder below the top one, with a "/" behind each name. False if a file is
  /// in the way, or a name too long.
  bool enter(const std::string& path) {
    if (path == folderPath) {
      return true;
    }
    folder.close();
    folderPath.clear();
    for (std::size_t begin = 0; begin < path.size();) {
      const std::size_t end = path.find('/', begin);
      folder = enterFolder(here(), path.substr(begin, end - begin), true);
      if (!folder) {
        return false;
      }
      begin = end + 1;
    }
    folderPath = path;
    return true;
  }

  const Descriptor top;
  Descriptor folder;       // of the present file; none: the top one
  std::string folderPath;  // of `folder`
  Descriptor file;
  std::string name;  // of the file
  timespec modified{};
  off_t position = 0;
  bool endsInHole = false;
  std::uint64_t taken = 0;
};

}  // namespace

std::unique_ptr<SnapshotWriter> makeFolderWriter(int directory, const std::string& name) {
  return std::make_unique<FolderWriter>(directory, name);
}

}  // namespace collection
