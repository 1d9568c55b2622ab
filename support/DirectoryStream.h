#pragma once

#include <dirent.h>

#include <cerrno>
#include <memory>
#include <string>

namespace kst::support {

/// A directory that is read entry by entry. Closing it leaves `errno` alone.
class DirectoryStream {
 public:
  /// `opendir`: links are followed, and `errno` tells the reason if `isOpen` is false.
  explicit DirectoryStream(const std::string& path) : stream(opendir(path.c_str())) {}

  [[nodiscard]] bool isOpen() const { return stream != nullptr; }

  /// The name of the next entry, valid until the next call; null behind the last one. REQUIRES:
  /// `isOpen`.
  const char* nextName() {
    const dirent* entry = readdir(stream.get());  // NOLINT(concurrency-mt-unsafe): its own stream
    return entry != nullptr ? entry->d_name : nullptr;
  }

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
inline bool isDotName(const std::string& name) { return name == "." || name == ".."; }

inline std::string childPath(const std::string& directory, const std::string& name) {
  return directory + '/' + name;
}

}  // namespace kst::support
