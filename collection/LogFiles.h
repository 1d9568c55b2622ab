#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "collection/Failure.h"
#include "support/Descriptor.h"

namespace collection {

struct LogFile {
  std::string path;
  std::string name;  ///< relative to the snapshot, as in "TelephonyLog/telephony.log"
  std::size_t size = 0;
};

/// Appends all regular files in and below `folder`, sorted by path and named below `name`. Links
/// are not followed, other kinds of files left out; a folder that does not exist counts as empty,
/// one that is a link itself is a failure.
Failure listLogFiles(const std::string& folder, const std::string& name,
                     std::vector<LogFile>& files);

/// Locks the logs of a folder against changes by the daemon that writes them, until `lock` is
/// closed. Waits while the daemon is in the middle of a line. A folder that has no lock file is not
/// locked: no daemon writes it.
Failure lockFolder(const std::string& folder, kst::support::Descriptor& lock);

}  // namespace collection
