#pragma once

#include <gtest/gtest.h>

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
  void TearDown() override { EXPECT_EQ(openDescriptors(), descriptorsBefore); }

  static std::ptrdiff_t openDescriptors() {
    const std::filesystem::directory_iterator descriptors("/proc/self/fd");
    return std::distance(begin(descriptors), end(descriptors));
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

  [[nodiscard]] std::vector<std::string> entries() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory.path)) {
      names.push_back(entry.path().filename());
    }
    return names;
  }

  const TemporaryDirectory directory;

 private:
  const std::ptrdiff_t descriptorsBefore = openDescriptors();
};
