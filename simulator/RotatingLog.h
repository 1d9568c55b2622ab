#pragma once

#include <cstddef>
#include <string>

#include "collection/Failure.h"
#include "support/Descriptor.h"

namespace simulator {

/// The logs that one daemon writes into one folder: FOLDER/NAME, and older ones as NAME.1, NAME.2
/// and so on. Whoever reads them locks the folder's lock file (collection::lockFileOf) against
/// changes.
class RotatingLog {
 public:
  struct Limits {
    std::size_t fileSize;  ///< bytes; a log that would become larger is rotated
    unsigned olderFiles;   ///< how many rotated logs are kept
  };

  RotatingLog(std::string folder, const std::string& name, Limits limits);

  /// Creates folder and lock file. To be called before `append`.
  collection::Failure open();

  /// Appends `line` and a line feed. Waits while somebody reads the logs; a line that cannot be
  /// written is lost.
  void append(const std::string& line);

 private:
  void rotate();
  [[nodiscard]] std::string olderFile(unsigned age) const;

  const std::string folder;
  const std::string file;
  const Limits limits;
  kst::support::Descriptor lockFile;
};

}  // namespace simulator
