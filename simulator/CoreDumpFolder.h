#pragma once

#include <string>

#include "collection/Failure.h"

namespace simulator {

/// The core dumps of the simulated baseband. A dump is written under a name with a leading "." and
/// renamed when it is complete.
class CoreDumpFolder {
 public:
  explicit CoreDumpFolder(std::string path);

  /// Creates the folder and removes what a killed daemon has left unfinished.
  [[nodiscard]] collection::Failure open() const;

  /// Writes a dump that begins with `title`, and removes older ones but the latest few.
  [[nodiscard]] collection::Failure write(const std::string& title) const;

 private:
  void removeOldDumps() const;

  const std::string folder;
  const std::string unfinished;
};

}  // namespace simulator
