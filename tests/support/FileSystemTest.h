#pragma once

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
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
