#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "collection/Report.h"
#include "support/Descriptor.h"
#include "support/DirectoryStream.h"

namespace collection {

/// A log that has been opened, with all of its record but what is known only when it was copied.
struct OpenLog {
  kst::support::Descriptor file;
  LogRecord record;
  dev_t device = 0;
  ino_t inode = 0;
};

/// Opens a log in the open directory, which `folderOwner` owns and is not trusted with: no link is
/// followed, nothing is waited for, and what is no regular file is left out. Without a `file` the
/// record, named `name`, tells why, and `errno` if a call has failed.
OpenLog openLog(int directory, const std::string& name, uid_t folderOwner);

/// A walk over the regular files in and below one folder. Its owner is not trusted: every name is
/// looked up once, in a folder that is held open, without following links, and what is not
/// collected is told to the report. The walk may pause between two logs while a daemon renames
/// them, which can hide one from it; so one that has paused is to be walked `again`.
class SourceWalk {
 public:
  /// `folder` in the open directory `parent`; one that is missing counts as empty. `parent` and
  /// `report` must outlive this.
  SourceWalk(int parent, std::string folder, Report& report);

  /// Looks at the next entry, and opens it if it is a log. With `mayRetry` an entry that fails for
  /// want of descriptors is not reported, but tried again by the next call. REQUIRES: not at the
  /// end.
  std::optional<OpenLog> next(bool mayRetry);

  [[nodiscard]] bool isAtEnd() const { return levels.empty(); }

  /// The last call has found no descriptors left.
  [[nodiscard]] bool isStarved() const { return starved.has_value(); }

  /// Starts once more, for logs that were not met before: they are named below FOLDER.later. What
  /// else there is has been reported.
  void again();

  /// The report can tell no more of this folder, and so the walk has ended.
  [[nodiscard]] bool isFull() const { return full; }

 private:
  using Identity = std::pair<dev_t, ino_t>;

  struct Level {
    kst::support::DirectoryStream directory;
    std::string prefix;  // of the names in it
    uid_t owner;
  };

  void enter(int directory, const std::string& name, const std::string& path);
  std::optional<OpenLog> meet(const std::string& name, unsigned char type);
  std::optional<OpenLog> open(const std::string& name, const std::string& path);
  bool isOutOfDescriptors(const std::string& name, unsigned char type);
  void report(LogRecord record);
  void reportFailure(const std::string& path);

  const int top;
  const std::string source;
  Report& entries;
  std::vector<Level> levels;  // from the folder to the one that is being read
  std::set<Identity> met;
  std::unordered_set<std::size_t> paths;  // hashes of those that logs were given
  std::size_t told = 0;                   // bytes of the report
  bool repeated = false;
  bool full = false;
  bool retries = false;                                          // of the present call
  std::optional<std::pair<std::string, unsigned char>> starved;  // the entry to be tried again
};

}  // namespace collection
