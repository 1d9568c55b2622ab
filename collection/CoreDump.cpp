#include "collection/CoreDump.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <optional>
#include <set>
#include <vector>

#include "support/Descriptor.h"
#include "support/FileOperations.h"

namespace collection {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kLookInterval{20};

/// The writing end of vexild's FIFO.
class ControlPipe {
 public:
  Failure open(const std::string& path) {
    // Without a reader the open would wait; so it fails with ENXIO.
    end = kst::support::Descriptor(
        kst::support::openPath(path, O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW, 0));
    if (!end) {
      const bool unread = errno == ENXIO || errno == ENOENT;
      return callFailed(unread ? "vexild does not run: open" : "open", path);
    }
    struct stat status {};
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

  /// Waits for `time`; true as soon as vexild has ended.
  [[nodiscard]] bool readerEnds(std::chrono::milliseconds time) const {
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

std::set<std::string> finishedDumps(const std::string& folder) {
  std::vector<std::string> names;
  kst::support::listDirectory(folder, names);
  std::erase_if(names, [](const std::string& name) { return name.starts_with('.'); });
  return {names.begin(), names.end()};
}

std::optional<std::string> newDump(const std::string& folder, const std::set<std::string>& before) {
  for (const std::string& name : finishedDumps(folder)) {
    if (!before.contains(name)) {
      return name;
    }
  }
  return {};
}

}  // namespace

Failure takeCoreDump(const DevicePaths& paths, const CollectionRequest& request,
                     std::chrono::milliseconds limit, std::string& name) {
  const std::set<std::string> before = finishedDumps(paths.coreDumps);
  ControlPipe control;
  if (auto failure = control.open(paths.basebandControl)) {
    return failure;
  }
  if (!control.write(requestLine(request))) {
    return callFailed("write", paths.basebandControl);
  }

  const Clock::time_point deadline = Clock::now() + limit;
  while (Clock::now() < deadline) {
    const bool ended = control.readerEnds(kLookInterval);
    if (const auto dump = newDump(paths.coreDumps, before)) {
      name = *dump;
      return {};
    }
    if (ended) {
      return "vexild ended before it had written a core dump to " + paths.coreDumps;
    }
  }
  return "vexild has written no core dump to " + paths.coreDumps + " within " +
         std::to_string(limit.count()) + " ms";
}

}  // namespace collection
