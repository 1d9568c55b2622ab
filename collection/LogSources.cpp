#include "collection/LogSources.h"

#include <fcntl.h>
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <iterator>
#include <system_error>
#include <thread>
#include <utility>

#include "support/FileOperations.h"

namespace collection {
namespace {

using kst::support::Descriptor;

/// How long a daemon may be held up at a time.
constexpr std::chrono::milliseconds kLongestHold{15};

/// How long it then has for itself, where nothing is there to be copied meanwhile.
constexpr std::chrono::milliseconds kRest{2};

/// Half of the descriptors that the process may have: what runs beside needs some too.
std::size_t batchSize() {
  constexpr rlim_t kMost = 4096;
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  return std::max<std::size_t>(static_cast<std::size_t>(std::min(limit.rlim_cur / 2, kMost)), 1);
}

/// Descriptors that whoever copies the logs needs, held back while logs are opened.
std::array<Descriptor, 4> reservedDescriptors(int any) {
  std::array<Descriptor, 4> reserved;
  for (Descriptor& each : reserved) {
    each = Descriptor(fcntl(any, F_DUPFD_CLOEXEC, 0));
  }
  return reserved;
}

/// Lets the table of descriptors grow now, for which the kernel makes a process of several threads
/// wait, and not while a daemon is held up.
void growDescriptorTable(int any) {
  const Descriptor highest(fcntl(any, F_DUPFD_CLOEXEC, static_cast<int>(batchSize())));
}

}  // namespace

LogSources::LogSources(const std::string& scratch, const std::vector<std::string>& folders,
                       const Limits& collectionLimits, const Deadline& collectionDeadline,
                       Report& logReport)
    : limits(collectionLimits), deadline(collectionDeadline), report(logReport) {
  constexpr int kFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  top = Descriptor(kst::support::openPath(scratch, kFlags, 0));
  if (!top) {
    if (errno != ENOENT) {
      report.add({.name = kst::support::lastPathComponent(scratch) + "/",
                  .fate = Fate::kUnreadable,
                  .why = std::generic_category().message(errno)});
    }
    return;
  }
  growDescriptorTable(top.get());
  for (const std::string& folder : folders) {
    sources.push_back({.folder = folder,
                       .lock = LogLock(top.get(), folder),
                       .walk = SourceWalk(top.get(), folder, report)});
    tellOfLock(sources.back());
  }
}

std::vector<OpenLog> LogSources::openNext() {
  std::vector<OpenLog> batch;
  while (batch.empty() && !sources.empty() && !deadline.hasPassed()) {
    deadline.throwIfCancelled();
    openFromEach(batch);
    if (batch.empty() && !sources.empty()) {
      std::this_thread::sleep_for(kRest);
    }
  }
  std::sort(batch.begin(), batch.end(), [](const OpenLog& left, const OpenLog& right) {
    return left.record.size < right.record.size;
  });
  return batch;
}

/// Each source has its share of the batch, so that none keeps the others waiting.
void LogSources::openFromEach(std::vector<OpenLog>& batch) {
  const std::size_t share = std::max<std::size_t>(batchSize() / sources.size(), 1);
  for (auto source = sources.begin(); source != sources.end();) {
    open(*source, batch, batch.size() + share);
    source = isFinished(*source) ? sources.erase(source) : std::next(source);
  }
}

/// Whether nothing of the source is left. While its walk paused the daemon may have renamed logs
/// that had not been met: then it is walked again, though not for ever.
bool LogSources::isFinished(Source& source) {
  constexpr unsigned kMostWalks = 4;
  if (!source.walk.isAtEnd()) {
    source.hasPaused = true;
    return false;
  }
  if (!source.hasPaused || source.walk.isFull() || source.walks == kMostWalks) {
    return true;
  }
  source.hasPaused = false;
  ++source.walks;
  source.walk.again();
  return false;
}

void LogSources::open(Source& source, std::vector<OpenLog>& batch, std::size_t fullBatch) {
  const auto reserve = reservedDescriptors(top.get());
  const bool hadProblem = source.lock.problem().has_value();
  source.lock.take(limits.lockTime, deadline);
  if (!hadProblem) {
    tellOfLock(source);
  }
  const auto end = Deadline::Clock::now() + kLongestHold;
  while (!source.walk.isAtEnd() && batch.size() < fullBatch && Deadline::Clock::now() < end) {
    if (auto log = source.walk.next(!batch.empty())) {
      batch.push_back(std::move(*log));
    } else if (source.walk.isStarved()) {
      break;
    }
  }
  source.lock.release();
}

void LogSources::tellOfLock(const Source& source) {
  if (const Failure& problem = source.lock.problem()) {
    report.remark(source.folder + " was not locked: " + *problem);
  }
}

}  // namespace collection
