#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

inline void writeFile(const std::filesystem::path& path, const std::string& content) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << content;
}

inline std::string readFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// The paths of what is in a folder; none if there is no folder.
inline std::vector<std::filesystem::path> entriesOf(const std::filesystem::path& folder) {
  std::vector<std::filesystem::path> found;
  if (std::filesystem::exists(folder)) {
    std::copy(std::filesystem::directory_iterator(folder), {}, std::back_inserter(found));
  }
  return found;
}
