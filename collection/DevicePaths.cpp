#include "collection/DevicePaths.h"

#include "support/FileOperations.h"
#include "trace/DiagConfig.h"
#include "trace/Trace.h"

namespace collection {

using kst::support::withoutTrailingSlashes;

DevicePaths::DevicePaths(const std::string& root) {
  const std::string base = root == "/" ? "" : withoutTrailingSlashes(root);
  scratch = withoutTrailingSlashes(base + kst::trace::kScratchFolder);
  telephonyLogs = scratch + "/" + kst::trace::kTEL;
  basebandLogs = scratch + "/" + diag::config::kDIAGScratchDir;
  coreDumps = scratch + "/" + kst::trace::kCoreDump;
  snapshots = withoutTrailingSlashes(base + kst::trace::kSnapshotFolder);
  staging = withoutTrailingSlashes(base + kst::trace::kUncompressedFolder);
  dumpIndication = base + kst::trace::kDumpIndicationFilePath;
  basebandControl = base + "/run/vexild.control";
}

std::string lockFileOf(const std::string& folder) { return folder + ".lock"; }

}  // namespace collection
