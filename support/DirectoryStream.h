#pragma once

#include <dirent.h>
#include <fcntl.h>

#include <cerrno>
#include <memory>
#include <string>
#include <string_view>

#include "support/Descriptor.h"

namespace kst::support {

/// A directory that is read entry by entry. Closing it leaves `errno` alone.
class DirectoryStream {
 public:
  DirectoryStream() = default;

  /// `opendir`: links are followed. If `isOpen` is false, `errno` tells the reason.
  explicit DirectoryStream(const std::string& path) : stream(opendir(path.c_str())) {}

  /// `fdopendir`, unless `directory` is none.
  explicit DirectoryStream(Descriptor directory)
      : stream(directory ? fdopendir(directory.get()) : nullptr) {
    if (isOpen()) {
      static_cast<void>(directory.release());  // the stream's from now on
    }
  }

  [[nodiscard]] bool isOpen() const { return stream != nullptr; }

  /// The next entry, valid until the next call; null behind the last one and if
  /// reading fails. REQUIRES: `isOpen`.
  const dirent* next() {
    return readdir(stream.get());  // NOLINT(concurrency-mt-unsafe): its own stream
  }

  /// The descriptor of the open directory, which stays the stream's. REQUIRES: `isOpen`.
  [[nodiscard]] int descriptor() const { return dirfd(stream.get()); }

  void close() { stream.reset(); }

 private:
  struct Closer {
    void operator()(DIR* open) const {
      const int error = errno;
      closedir(open);
      errno = error;
    }
  };

  std::unique_ptr<DIR, Closer> stream;
};

/// True for "." and "..", which every directory has and which are no entries of its own.
inline bool isDotName(std::string_view name) { return name == "." || name == ".."; }

/// Opens the directory, but not through a link in its last component; `directory` and `path` are
/// those of `openat`, as is `errno`.
inline Descriptor openFolder(int directory, const std::string& path) {
  return Descriptor(
      openat(directory, path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}
inline DirectoryStream openDirectory(int directory, const std::string& path) {
  return DirectoryStream(openFolder(directory, path));
}

inline std::string childPath(const std::string& directory, const std::string& name) {
  return directory + '/' + name;
}

}  // namespace kst::support
