#pragma once

#include <sys/types.h>

#include <string>

#include "collection/Failure.h"
#include "support/Descriptor.h"

namespace collection {

/// The file that tells other processes that a dump is in progress; it goes with this object. It
/// stands in a folder in which everybody may make entries: one of somebody else's is left alone,
/// and is a `problem`, as is everything that keeps the file from being made.
class DumpIndication {
 public:
  /// Makes the file, in place of one that a killed process of this user has left.
  explicit DumpIndication(const std::string& path);
  DumpIndication(const DumpIndication&) = delete;
  DumpIndication& operator=(const DumpIndication&) = delete;
  ~DumpIndication();

  [[nodiscard]] const Failure& problem() const { return failure; }

  /// Removes what a killed process of this user has left.
  static void clear(const std::string& path);

 private:
  const std::string name;
  kst::support::Descriptor folder;
  Failure failure;
};

}  // namespace collection
