#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <set>
#include <sstream>
#include <string>

#include "support/Descriptor.h"
#include "tests/support/Files.h"
#include "tests/support/TemporaryDirectory.h"

/// Sets a limit of the process while it lives.
class ResourceLimit {
 public:
  ResourceLimit(__rlimit_resource limited, rlim_t most) : resource(limited) {
    getrlimit(resource, &old);
    const rlimit limit{most, old.rlim_max};
    setrlimit(resource, &limit);
  }
  ResourceLimit(const ResourceLimit&) = delete;
  ResourceLimit& operator=(const ResourceLimit&) = delete;
  ~ResourceLimit() { setrlimit(resource, &old); }

 private:
  const __rlimit_resource resource;
  rlimit old{};
};

/// A directory to work in, and the check that no test leaves a descriptor open.
class FileSystemTest : public testing::Test {
 protected:
  FileSystemTest() { umask(022); }

  void TearDown() override { EXPECT_EQ(openDescriptors(), descriptorsBefore); }

  /// The reason of a call that gave false; 0 for one that gave true.
  static int errorOf(bool result) { return result ? 0 : errno; }

  static size_t openDescriptors() { return namesIn("/proc/self/fd").size() - 1; }

  /// Makes what the words tell of, below the directory and in new folders if need be: "file",
  /// "file=content", "link>target", "fifo|" and "folder/".
  void make(const std::string& tree) {
    std::istringstream words(tree);
    for (std::string word; words >> word;) {
      const size_t mark = std::min(word.find_first_of("=>|"), word.size());
      const std::filesystem::path path = directory / word.substr(0, mark);
      const std::string rest = word.substr(std::min(mark + 1, word.size()));
      std::filesystem::create_directories(path.parent_path());
      if (word[mark] == '>') {
        std::filesystem::create_symlink(rest, path);
      } else if (word[mark] == '|') {
        EXPECT_EQ(mkfifo(path.c_str(), 0666), 0);
      } else if (!word.ends_with('/')) {
        writeFile(path, rest);
      }
    }
  }

  /// What stands in and below a folder, in the words of `make`, sorted; of folders the empty ones.
  [[nodiscard]] std::string tree(const std::string& folder = "") const {
    std::set<std::string> words;
    const std::filesystem::path top = directory / folder;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(top)) {
      std::string word = entry.path().lexically_relative(top);
      if (entry.is_symlink()) {
        word.append(">").append(read_symlink(entry.path()));
      } else if (entry.is_directory()) {
        word += "/";
      } else if (entry.is_fifo()) {
        word += "|";
      } else if (const std::string content = readFile(entry.path()); !content.empty()) {
        word.append("=").append(content);
      }
      if (!word.ends_with('/') || is_empty(entry)) {
        words.insert(word);
      }
    }
    std::string text;
    for (const std::string& word : words) {
      text += (text.empty() ? "" : " ") + word;
    }
    return text;
  }

  /// Writes a file below the directory, in new folders if need be, and returns its path.
  std::string makeFile(const std::string& name, const std::string& content = "") {
    writeFile(directory / name, content);
    return directory / name;
  }

  /// Takes a lock on the first byte behind `start`, or all of them, or gives it back. It is one of
  /// the open file: to record locks as good as another process's.
  static bool setLock(const kst::support::Descriptor& file, short type, off_t start = 0) {
    struct flock lock = {type, SEEK_SET, start, start == 0 ? 0 : 1, 0};
    return fcntl(file.get(), F_OFD_SETLK, &lock) == 0;
  }

  const TemporaryDirectory directory;
  const std::string oddName = "line\nfeed [a-z]*\\(\xff\xfe";

 private:
  const size_t descriptorsBefore = openDescriptors();
};
