#pragma once

#include <string>

#include "collection/Failure.h"

namespace collection {

/// The file that tells other processes that a dump is in progress; it goes with this object.
class DumpIndication {
 public:
  explicit DumpIndication(std::string path);
  DumpIndication(const DumpIndication&) = delete;
  DumpIndication& operator=(const DumpIndication&) = delete;
  ~DumpIndication();

  /// Creates the file, in place of one that a killed process has left.
  [[nodiscard]] Failure raise() const;

 private:
  std::string file;
};

}  // namespace collection
