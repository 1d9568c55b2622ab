#pragma once

#include <list>
#include <memory>
#include <string>
#include <vector>

#include "collection/Deadline.h"
#include "collection/Limits.h"
#include "collection/LogLock.h"
#include "collection/Report.h"
#include "collection/SourceWalk.h"
#include "support/Descriptor.h"

namespace collection {

/// The logs of several folders, opened batch by batch. A daemon's lock is held only while logs of
/// its folder are opened, and only for some milliseconds at a time.
class LogSources {
 public:
  /// `folders` below `scratch`, which is not followed if it is a link; one that is missing counts
  /// as empty. All references must outlive this.
  LogSources(const std::string& scratch, const std::vector<std::string>& folders,
             const Limits& collectionLimits, const Deadline& collectionDeadline, Report& logReport);

  /// Opens the next logs, the smaller ones first; none at the end or when the time is over. Throws
  /// as `Deadline::throwIfCancelled` does. REQUIRES: the logs of the last batch are closed.
  std::vector<OpenLog> openNext();

  [[nodiscard]] bool isAtEnd() const { return sources.empty(); }

 private:
  struct Source {
    std::string folder;
    LogLock lock;
    SourceWalk walk;
    bool hasPaused = false;  // in the present walk
    unsigned walks = 1;
  };

  void openFromEach(std::vector<OpenLog>& batch);
  void open(Source& source, std::vector<OpenLog>& batch, std::size_t fullBatch);
  void tellOfLock(const Source& source);
  static bool isFinished(Source& source);

  const Limits& limits;
  const Deadline& deadline;
  Report& report;
  kst::support::Descriptor top;
  std::list<Source> sources;  // of which something is still to be opened
};

}  // namespace collection
