#include "tests/collection/TemporaryDevice.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>

namespace fs = std::filesystem;

namespace {

std::string makeRoot() {
  std::string path = fs::temp_directory_path() / "kst-device-XXXXXX";
  return mkdtemp(path.data()) == nullptr ? "" : path;
}

}  // namespace

TemporaryDevice::TemporaryDevice() : rootFolder(makeRoot()), devicePaths(rootFolder) {}

TemporaryDevice::~TemporaryDevice() { fs::remove_all(rootFolder); }

void writeFile(const std::string& path, const std::string& content) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << content;
}

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<std::string> namesIn(const std::string& folder) {
  std::vector<std::string> names;
  if (!fs::exists(folder)) {
    return names;
  }
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    names.push_back(entry.path().filename());
  }
  std::sort(names.begin(), names.end());
  return names;
}
