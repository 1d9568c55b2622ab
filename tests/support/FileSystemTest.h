#pragma once

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/TemporaryDirectory.h"

/// A directory to work in, and the check that no test leaves a descriptor open.
class FileSystemTest : public testing::Test {
 protected:
  FileSystemTest() { umask(022); }

  void TearDown() override {
    overridePermissions(true);
    EXPECT_EQ(openDescriptors(), descriptorsBefore);
  }

  /// Whether root may do what a file's mode forbids.
  static void overridePermissions(bool mayDo) {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct sets[2];
    EXPECT_EQ(syscall(SYS_capget, &header, sets), 0);
    constexpr uint32_t kOverriding = 1U << CAP_DAC_OVERRIDE | 1U << CAP_DAC_READ_SEARCH;
    sets[0].effective = mayDo ? sets[0].permitted : sets[0].permitted & ~kOverriding;
    EXPECT_EQ(syscall(SYS_capset, &header, sets), 0);
  }

  /// The reason of a call that gave false; 0 for one that gave true.
  static int errorOf(bool result) { return result ? 0 : errno; }

  static std::ptrdiff_t openDescriptors() {
    const std::filesystem::directory_iterator descriptors("/proc/self/fd");
    return std::distance(begin(descriptors), end(descriptors)) - 1;  // less the iterator's
  }

  /// Makes what the words tell of, below the directory and in new folders if need be: "file",
  /// "file=content", "link>target", "fifo|" and "folder/".
  void make(const std::string& tree) {
    std::istringstream words(tree);
    for (std::string word; words >> word;) {
      const size_t mark = std::min(word.find_first_of("=>|"), word.size());
      const std::string name = word.substr(0, mark);
      const std::string rest = word.substr(std::min(mark + 1, word.size()));
      std::filesystem::create_directories(std::filesystem::path(directory / name).parent_path());
      if (word[mark] == '>') {
        makeLink(name, rest);
      } else if (word[mark] == '|') {
        EXPECT_EQ(mkfifo((directory / name).c_str(), 0666), 0);
      } else if (!word.ends_with('/')) {
        makeFile(name, rest);
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
      } else if (const std::string content = contentOf(entry.path()); !content.empty()) {
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
    const std::filesystem::path path = directory / name;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }

  std::string makeLink(const std::string& name, const std::string& target) {
    std::filesystem::create_symlink(target, directory / name);
    return directory / name;
  }

  static std::string contentOf(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
  }

  /// The names in a folder below the directory, in the order of `readdir`.
  [[nodiscard]] std::vector<std::string> entries(const std::string& folder = "") const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory / folder)) {
      names.push_back(entry.path().filename());
    }
    return names;
  }

  const TemporaryDirectory directory;
  const std::string oddName = "line\nfeed [a-z]*\\(\xff\xfe";

 private:
  const std::ptrdiff_t descriptorsBefore = openDescriptors();
};
