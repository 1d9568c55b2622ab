#include "collection/Collector.h"

#include <fcntl.h>
#include <sys/time.h>

#include <cerrno>
#include <chrono>
#include <vector>

#include "collection/CoreDump.h"
#include "collection/Folder.h"
#include "collection/LogFiles.h"
#include "collection/PrintableText.h"
#include "collection/Snapshots.h"
#include "collection/ZipArchive.h"
#include "logdump/TimestampSet.h"
#include "platform/device/RadioInfo.h"
#include "support/Descriptor.h"
#include "support/DirectoryStream.h"
#include "support/FileOperations.h"
#include "support/LogDirectory.h"
#include "trace/DiagConfig.h"
#include "trace/Trace.h"

namespace collection {
namespace {

constexpr std::chrono::seconds kCoreDumpLimit{10};
constexpr std::int32_t kVendorWithDiag = 2;

/// How the name of the snapshot ends, as its readers expect it.
std::string snapshotSuffix(const CollectionRequest& request) {
  switch (request.kind) {
    case LogKind::kTelephony:
      return request.compress ? "-telephony.zip" : "-telephony";
    case LogKind::kTelephonyWithCoredump:
      return request.compress ? "-coredump.zip" : "-coredump";
    case LogKind::kBaseband:
      break;
  }
  if (request.compress) {
    return "-baseband.zip";
  }
  return RadioInfo::getRadioVendor() == kVendorWithDiag ? "-diag" : "-bb-trace";
}

/// One collection, from the request to the snapshot.
class Collection {
 public:
  Collection(const DevicePaths& devicePaths, const std::string& stagingFolder,
             const CollectionRequest& collectionRequest)
      : paths(devicePaths),
        folder(stagingFolder + "/snapshot"),
        zip(stagingFolder + "/snapshot.zip"),
        request(collectionRequest) {
    TimestampSet::now(start);
  }

  Failure run() {
    for (const auto step : {&Collection::prepare, &Collection::dumpCore, &Collection::copyLogs,
                            &Collection::writeInfo, &Collection::finish, &Collection::publish}) {
      if (auto failure = (this->*step)()) {
        return failure;
      }
    }
    return {};
  }

  /// What `run` has made.
  [[nodiscard]] const Snapshot& snapshot() const { return published; }

 private:
  Failure prepare() {
    if (auto failure = makeFolder(folder)) {
      return failure;
    }
    return makeFolder(paths.snapshots);
  }

  Failure dumpCore() {
    if (request.kind != LogKind::kTelephonyWithCoredump) {
      return {};
    }
    return takeCoreDump(paths, request, kCoreDumpLimit, coreDump);
  }

  Failure copyLogs() {
    std::vector<std::string> sources{paths.basebandLogs};
    if (request.kind != LogKind::kBaseband) {
      sources.insert(sources.begin(), paths.telephonyLogs);
    }

    // The daemons' logs stand still from the listing to the end of the copying.
    std::vector<kst::support::Descriptor> locks(sources.size());
    std::vector<LogFile> files;
    for (std::size_t index = 0; index < sources.size(); ++index) {
      const std::string& source = sources[index];
      if (auto failure = lockFolder(source, locks[index])) {
        return failure;
      }
      const std::string name = kst::support::lastPathComponent(source);
      if (auto failure = listLogFiles(source, name, files)) {
        return failure;
      }
    }
    if (!coreDump.empty()) {
      files.push_back(coreDumpFile());
    }

    if (auto failure = checkRoom(files)) {
      return failure;
    }
    for (const LogFile& file : files) {
      if (auto failure = copy(file)) {
        return failure;
      }
    }
    return {};
  }

  [[nodiscard]] LogFile coreDumpFile() const {
    LogFile file{kst::support::childPath(paths.coreDumps, coreDump),
                 kst::support::childPath(kst::trace::kCoreDump, coreDump)};
    kst::support::fileSize(file.path, file.size);
    return file;
  }

  [[nodiscard]] Failure checkRoom(const std::vector<LogFile>& files) const {
    std::uint64_t total = 0;
    std::uint64_t freeBlocks = 0;
    std::uint64_t fragmentSize = 0;
    if (!kst::support::fileSystemSpace(folder, total, freeBlocks, fragmentSize)) {
      return callFailed("statvfs", folder);
    }
    std::uint64_t needed = 0;
    for (const LogFile& file : files) {
      needed += file.size;
    }
    // For a while the copies and the archive, at worst of the same size, stand side by side.
    if (request.compress) {
      needed *= 2;
    }
    if (needed <= freeBlocks * fragmentSize) {
      return {};
    }
    return "not enough room in " + folder + ": " + std::to_string(needed) + " bytes needed, " +
           std::to_string(freeBlocks * fragmentSize) + " free";
  }

  Failure copy(const LogFile& file) {
    const std::string target = kst::support::childPath(folder, file.name);
    const std::string targetFolder = kst::support::parentDirectory(target);
    if (auto failure = makeFolder(targetFolder)) {
      return failure;
    }
    if (!kst::support::copyFile(file.path, target, true)) {
      const int error = errno;
      // With a folder to create the copy in, it is the log that there is no longer.
      if (error == ENOENT && kst::support::pathExists(targetFolder)) {
        vanished.push_back(file.name);
        return {};
      }
      errno = error;
      return callFailed("copy", file.path + " to " + target);
    }
    copied.push_back(file);
    // The file may have grown since it was listed.
    kst::support::fileSize(target, copied.back().size);
    return {};
  }

  Failure writeInfo() {
    const std::string path = folder + kst::trace::kKSTInfoFilename;
    const std::string text = info();
    const kst::support::Descriptor file(
        kst::support::openPath(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
    if (!file) {
      return callFailed("open", path);
    }
    if (!kst::support::writeFully(file.get(), text.data(), text.size())) {
      return callFailed("write", path);
    }
    return {};
  }

  [[nodiscard]] std::string info() const {
    TimestampSet timestamps;
    timestamps.set(start, 0);
    std::string text = "Reason: " + request.reason +
                       "\nTime: " + timestamps.toString(0, kTimestampDateZone) +
                       "\nAction: " + actionOf(request.kind) +
                       "\nCompress: " + (request.compress ? "true" : "false") +
                       "\nFiles: " + std::to_string(copied.size()) + "\n";
    for (const LogFile& file : copied) {
      text += "  " + printable(file.name) + " (" + std::to_string(file.size) + " bytes)\n";
    }
    if (copied.empty()) {
      text += "No log file was found.\n";
    }
    for (const std::string& name : vanished) {
      text += "Removed by its daemon before it was copied: " + printable(name) + "\n";
    }
    return text;
  }

  /// Brings what is published into its final form and onto the disk.
  Failure finish() {
    if (!request.compress) {
      return syncTree(folder);
    }
    std::vector<std::string> names{kst::support::lastPathComponent(kst::trace::kKSTInfoFilename)};
    for (const LogFile& file : copied) {
      names.push_back(file.name);
    }
    if (auto failure = writeZip(zip, folder, names)) {
      return failure;
    }
    return syncTree(zip);
  }

  Failure publish() {
    return publishSnapshot(request.compress ? zip : folder, paths.snapshots, start,
                           snapshotSuffix(request), published);
  }

  const DevicePaths& paths;
  const std::string folder;
  const std::string zip;
  const CollectionRequest& request;
  timeval start{};
  std::string coreDump;  // its name; empty without one
  std::vector<LogFile> copied;
  std::vector<std::string> vanished;
  Snapshot published;
};

}  // namespace

CollectionOutcome failedCollection(const std::string& text) {
  return {{kst::kResultCollectionFailed, printable(text)}, ""};
}

Collector::Collector(const DevicePaths& devicePaths, const std::string& stagingFolder,
                     SnapshotLimits snapshotLimits)
    : paths(devicePaths), staging(stagingFolder), limits(snapshotLimits) {}

CollectionOutcome Collector::collect(const CollectionRequest& request) const {
  if (const Failure failure = clearStaging()) {
    return failedCollection(*failure);
  }
  // Before the new snapshot stands there, so that no age limit can reach it.
  const bool pruned = kst::support::pruneDirectory(paths.snapshots, limits.maximumAge);

  Collection collection(paths, staging, request);
  const Failure failure = collection.run();
  const Failure notCleared = clearStaging();
  if (failure) {
    return failedCollection(*failure);
  }

  // The logs are safe: what goes wrong with older ones is worth a word, but no failure.
  Failure remark = removeOldSnapshots(paths.snapshots, limits.number, collection.snapshot().path);
  if (!pruned) {
    remark = "old snapshots in " + paths.snapshots + " could not be removed";
  }
  if (!remark) {
    remark = notCleared;
  }
  return {{0, printable(remark.value_or(""))}, collection.snapshot().timestamp};
}

Failure Collector::clearStaging() const {
  if (!kst::support::pruneDirectory(staging, 0)) {
    return callFailed("clear", staging);
  }
  return {};
}

}  // namespace collection
