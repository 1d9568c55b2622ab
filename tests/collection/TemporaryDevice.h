#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "collection/DevicePaths.h"

/// A device root in a temporary folder, without any service or daemon.
class TemporaryDevice {
 public:
  TemporaryDevice();
  TemporaryDevice(const TemporaryDevice&) = delete;
  TemporaryDevice& operator=(const TemporaryDevice&) = delete;
  ~TemporaryDevice();

  [[nodiscard]] const std::string& root() const { return rootFolder; }
  [[nodiscard]] const collection::DevicePaths& paths() const { return devicePaths; }

 private:
  std::string rootFolder;
  collection::DevicePaths devicePaths;
};

/// Writes a file, and the folders above it.
void writeFile(const std::string& path, const std::string& content);

std::string readFile(const std::string& path);

/// The names in a folder, sorted; none if there is no folder.
std::vector<std::string> namesIn(const std::string& folder);
