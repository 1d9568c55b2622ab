#include "collection/CoreDump.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <functional>
#include <set>
#include <string>
#include <utility>

#include "collection/CollectionError.h"
#include "collection/Failure.h"
#include "platform/message/CommandResult.h"
#include "support/Descriptor.h"
#include "support/DirectoryStream.h"
#include "support/FileOperations.h"
#include "support/TreeRemoval.h"
#include "trace/Trace.h"

namespace collection {
namespace {

constexpr std::chrono::milliseconds kLookInterval{20};

/// The writing end of vexild's FIFO.
class ControlWriter {
 public:
  Failure open(const std::string& path) {
    // Without a reader the open would wait; so it fails with ENXIO.
    end = kst::support::Descriptor(
        kst::support::openPath(path, O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW, 0));
    if (!end) {
      const bool unread = errno == ENXIO || errno == ENOENT;
      return callFailed(unread ? "vexild does not run: open" : "open", path);
    }
    struct stat status = {};
    if (fstat(end.get(), &status) != 0) {
      return callFailed("fstat", path);
    }
    if (!S_ISFIFO(status.st_mode)) {
      return path + " is no FIFO";
    }
    return {};
  }

  [[nodiscard]] bool write(const std::string& line) const {
    return kst::support::writeFully(end.get(), line.data(), line.size());
  }

  /// Whether a request that vexild has not read yet stands in the FIFO.
  [[nodiscard]] bool isBusy() const {
    int unread = 0;
    return ioctl(end.get(), FIONREAD, &unread) == 0 && unread > 0;
  }

  /// Waits for `time`; true as soon as vexild has ended.
  [[nodiscard]] bool awaitReaderEnd(std::chrono::milliseconds time) const {
    pollfd event{.fd = end.get(), .events = 0, .revents = 0};
    return poll(&event, 1, static_cast<int>(time.count())) > 0 && (event.revents & POLLERR) != 0;
  }

 private:
  kst::support::Descriptor end;
};

/// One line, short enough to be written in one piece.
std::string requestLine(const CollectionRequest& request) {
  std::string line = request.resetType + "\t" + request.resetSubType + "\t" + request.reason;
  line.resize(std::min<std::size_t>(line.size(), PIPE_BUF - 1));
  return line + "\n";
}

[[noreturn]] void giveUp(const std::string& text) {
  throw CollectionError(kst::kResultNoCoreDump, text);
}

/// The dumps of a folder whose owner is not trusted. It may be made, or made anew, only when a dump
/// is, as may the folder above it.
class DumpFolder {
 public:
  explicit DumpFolder(const DevicePaths& devicePaths) : paths(devicePaths) {
    lookFor([this](int, uid_t, const std::string& name) { known.insert(name); });
  }

  /// Opens a finished dump that was not there when this was made; without a file if there is none.
  OpenLog openNew(Report& report) {
    OpenLog found;
    lookFor([&](int folder, uid_t owner, const std::string& name) {
      if (found.file || known.contains(name)) {
        return;
      }
      OpenLog dump = openLog(folder, name, owner);
      if (!dump.file && dump.record.fate == Fate::kVanished) {
        return;
      }
      dump.record.name = kst::support::childPath(kst::trace::kCoreDump, name);
      if (dump.file) {
        found = std::move(dump);
      } else {
        known.insert(name);
        report.add(std::move(dump.record));
      }
    });
    return found;
  }

 private:
  using Visit = std::function<void(int folder, uid_t owner, const std::string& name)>;

  void lookFor(const Visit& met) {
    constexpr std::size_t kMostDumps = 10'000;
    constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    const kst::support::Descriptor above(kst::support::openPath(paths.scratch, kFlags | O_PATH, 0));
    kst::support::DirectoryStream names;
    if (above) {
      names = kst::support::openDirectory(above.get(), kst::trace::kCoreDump);
    }
    struct stat status = {};
    if (!names.isOpen() || fstat(names.descriptor(), &status) != 0) {
      return errno == ENOENT ? void() : giveUp(callFailed("open", paths.coreDumps));
    }
    std::size_t seen = 0;
    while (const dirent* entry = names.next()) {
      if (!kst::support::isDotName(entry->d_name) && ++seen > kMostDumps) {
        giveUp(paths.coreDumps + " holds too much");
      }
      // With a leading "." it is not finished.
      if (entry->d_name[0] != '.') {
        met(names.descriptor(), status.st_uid, entry->d_name);
      }
    }
  }

  const DevicePaths& paths;
  std::set<std::string> known;
};

}  // namespace

OpenLog takeCoreDump(const DevicePaths& paths, const CollectionRequest& request,
                     std::chrono::milliseconds limit, const Deadline& deadline, Report& report) {
  ControlWriter control;
  if (const auto failure = control.open(paths.basebandControl)) {
    giveUp(*failure);
  }
  const Deadline::Clock::time_point end = deadline.orAfter(limit);
  const auto awaitVexildEnd = [&] {
    deadline.throwIfCancelled();
    if (Deadline::Clock::now() >= end) {
      giveUp("vexild has written no core dump to " + paths.coreDumps + " in time");
    }
    return control.awaitReaderEnd(kLookInterval);
  };
  const std::string ended = "vexild ended before it had written a core dump to " + paths.coreDumps;
  // The dump of a request that was given up is not the one that this request asks for.
  while (control.isBusy()) {
    if (awaitVexildEnd()) {
      giveUp(ended);
    }
  }
  DumpFolder dumps(paths);
  if (!control.write(requestLine(request))) {
    giveUp(callFailed("write", paths.basebandControl));
  }
  for (;;) {
    const bool isLast = awaitVexildEnd();
    OpenLog dump = dumps.openNew(report);
    if (dump.file) {
      return dump;
    }
    if (isLast) {
      giveUp(ended);
    }
  }
}

}  // namespace collection
