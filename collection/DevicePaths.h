#pragma once

#include <string>

namespace collection {

/// Where everything stands on a device whose file tree begins at `root`. All paths are absolute if
/// `root` is, and do not end in "/".
struct DevicePaths {
  explicit DevicePaths(const std::string& root);

  std::string scratch;          ///< folder of the three below
  std::string telephonyLogs;    ///< written by Corvend
  std::string basebandLogs;     ///< written by vexild
  std::string coreDumps;        ///< written by vexild, names with a leading "." are unfinished
  std::string snapshots;        ///< finished collections
  std::string staging;          ///< the collection that one of the services is making
  std::string dumpIndication;   ///< this file exists while the manager collects
  std::string basebandControl;  ///< the FIFO on which vexild takes requests for a core dump
};

/// The file that the daemon which writes `folder` locks exclusively (fcntl(2)) while it writes or
/// rotates a log in there. It stands beside the folder, so nobody closes it by reading the logs.
std::string lockFileOf(const std::string& folder);

}  // namespace collection
