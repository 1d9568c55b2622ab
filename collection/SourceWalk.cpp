#include "collection/SourceWalk.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <functional>
#include <system_error>

namespace collection {
namespace {

using kst::support::Descriptor;
using kst::support::DirectoryStream;

/// More than logs have, and few enough for a descriptor each and a path that people can use.
constexpr std::size_t kDeepest = 64;

/// What the entries of a source may take in the report: enough for 50,000 logs of usual names, and
/// little of the memory that a service may have.
constexpr std::size_t kLongestReport = std::size_t{12} << 20;

/// The kind of an entry that is not collected.
const char* kindOf(unsigned char type) {
  switch (type) {
    case DT_LNK:
      return "a link";
    case DT_FIFO:
      return "a FIFO";
    case DT_SOCK:
      return "a socket";
    case DT_BLK:
    case DT_CHR:
      return "a device";
    default:
      return "no regular file";
  }
}

/// What became of an entry that a call has failed for, by the present `errno`.
LogRecord failureRecord(const std::string& path) {
  switch (errno) {
    case ENOENT:
      return {.name = path, .fate = Fate::kVanished};
    case ELOOP:
      return {.name = path, .fate = Fate::kLeftOut, .why = kindOf(DT_LNK)};
    case ENXIO:
      return {.name = path, .fate = Fate::kLeftOut, .why = kindOf(DT_SOCK)};
    default:
      return {
          .name = path, .fate = Fate::kUnreadable, .why = std::generic_category().message(errno)};
  }
}

}  // namespace

OpenLog openLog(int directory, const std::string& name, uid_t folderOwner) {
  constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  errno = 0;
  Descriptor file(openat(directory, name.c_str(), kFlags));
  struct stat status = {};
  if (!file || fstat(file.get(), &status) != 0) {
    return {.file = {}, .record = failureRecord(name)};
  }
  // Somebody may have put something else there since the folder was read.
  if (!S_ISREG(status.st_mode)) {
    const auto type = static_cast<unsigned char>(IFTODT(status.st_mode));
    return {.file = {}, .record = {.name = name, .fate = Fate::kLeftOut, .why = kindOf(type)}};
  }
  // Whoever owns a folder may give a name in it to a file that he may not read; where the kernel
  // protects hard links (fs.protected_hardlinks), not even that.
  if (status.st_nlink > 1 && status.st_uid != folderOwner) {
    return {
        .file = {},
        .record = {
            .name = name, .fate = Fate::kLeftOut, .why = "a second name of another user's file"}};
  }
  return {.file = std::move(file),
          .record = {.name = name,
                     .size = static_cast<std::uint64_t>(status.st_size),
                     .modified = status.st_mtim},
          .device = status.st_dev,
          .inode = status.st_ino};
}

SourceWalk::SourceWalk(int parent, std::string folder, Report& report)
    : top(parent), source(std::move(folder)), entries(report) {
  enter(top, source, source);
}

void SourceWalk::again() {
  repeated = true;
  enter(top, source, source + ".later");
}

std::optional<OpenLog> SourceWalk::next(bool mayRetry) {
  retries = mayRetry;
  if (starved) {
    const auto [name, type] = *std::exchange(starved, std::nullopt);
    return meet(name, type);
  }
  errno = 0;
  const dirent* entry = levels.back().directory.next();
  if (entry == nullptr) {
    if (errno != 0) {
      reportFailure(levels.back().prefix);
    }
    levels.pop_back();
    return {};
  }
  if (kst::support::isDotName(entry->d_name)) {
    return {};
  }
  if (told >= kLongestReport) {
    entries.remark(source + " holds too much: not all of it was looked at");
    levels.clear();
    full = true;
    return {};
  }
  return meet(entry->d_name, entry->d_type);
}

std::optional<OpenLog> SourceWalk::meet(const std::string& name, unsigned char type) {
  const Level& level = levels.back();
  const std::string path = level.prefix + name;
  const int directory = level.directory.descriptor();
  struct stat status = {};
  if (type == DT_UNKNOWN || (repeated && type == DT_REG)) {
    if (fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
      reportFailure(path);
      return {};
    }
    type = static_cast<unsigned char>(IFTODT(status.st_mode));
  }
  if (type == DT_REG) {
    return repeated && met.contains({status.st_dev, status.st_ino}) ? std::nullopt
                                                                    : open(name, path);
  }
  if (type == DT_DIR) {
    told += Report::sizeOf({.name = path});  // folders without end would take all the time
    enter(directory, name, path);
  } else {
    report({.name = path, .fate = Fate::kLeftOut, .why = kindOf(type)});
  }
  return {};
}

void SourceWalk::enter(int directory, const std::string& name, const std::string& path) {
  if (levels.size() >= kDeepest) {
    report({.name = path + "/",
            .fate = Fate::kLeftOut,
            .why = "deeper than " + std::to_string(kDeepest) + " folders"});
    return;
  }
  Descriptor opened = kst::support::openFolder(directory, name);
  struct stat status = {};
  if (opened && fstat(opened.get(), &status) == 0) {
    DirectoryStream stream(std::move(opened));
    if (stream.isOpen()) {
      levels.push_back({std::move(stream), path + "/", status.st_uid});
      return;
    }
  }
  const bool isTop = levels.empty();
  if (!isTop && isOutOfDescriptors(name, DT_DIR)) {
    return;
  }
  if (!isTop || errno != ENOENT) {
    reportFailure(path + "/");
  }
}

std::optional<OpenLog> SourceWalk::open(const std::string& name, const std::string& path) {
  const Level& level = levels.back();
  OpenLog log = openLog(level.directory.descriptor(), name, level.owner);
  log.record.name = path;
  if (!log.file) {
    if (!isOutOfDescriptors(name, DT_REG)) {
      report(std::move(log.record));
    }
    return {};
  }
  const bool isNew = met.emplace(log.device, log.inode).second;
  if (!paths.insert(std::hash<std::string>()(path)).second) {
    // Renamed while the walk paused: another log under the name of one that was met.
    if (!isNew) {
      return {};
    }
    log.record.name.append("~").append(std::to_string(log.inode));
  }
  told += Report::sizeOf(log.record);
  return log;
}

/// Whether the entry has failed for want of descriptors and is to be tried again.
bool SourceWalk::isOutOfDescriptors(const std::string& name, unsigned char type) {
  if (!retries || (errno != EMFILE && errno != ENFILE)) {
    return false;
  }
  starved.emplace(name, type);
  return true;
}

void SourceWalk::reportFailure(const std::string& path) { report(failureRecord(path)); }

void SourceWalk::report(LogRecord record) {
  if (!repeated) {
    told += Report::sizeOf(record);
    entries.add(std::move(record));
  }
}

}  // namespace collection
