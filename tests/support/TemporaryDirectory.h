#pragma once

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

/// An empty directory in the system's folder for temporary files, removed with everything in it.
class TemporaryDirectory {
 public:
  TemporaryDirectory() : path(std::filesystem::temp_directory_path() / "kst-XXXXXX") {
    if (mkdtemp(path.data()) == nullptr) {
      throw std::system_error(errno, std::generic_category(), path);
    }
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  ~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }

  /// The path of `name` in the directory; that of a full path is itself.
  std::string operator/(const std::string& name) const {
    return std::filesystem::path(path) / name;
  }

  std::string path;
};
