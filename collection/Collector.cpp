#include "collection/Collector.h"

#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <exception>
#include <limits>
#include <memory>
#include <optional>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "collection/CollectionError.h"
#include "collection/CoreDump.h"
#include "collection/Deadline.h"
#include "collection/DumpIndication.h"
#include "collection/LogSources.h"
#include "collection/PrintableText.h"
#include "collection/Report.h"
#include "collection/SnapshotStore.h"
#include "collection/SnapshotWriter.h"
#include "logdump/TimestampSet.h"
#include "support/FileOperations.h"
#include "trace/DevicePredicates.h"
#include "trace/DiagConfig.h"
#include "trace/Trace.h"

namespace collection {
namespace {

constexpr const char* kTimeWasOver = "the time was over";

/// How the name of the snapshot ends, as its readers expect it.
std::string snapshotSuffix(const CollectionRequest& request) {
  switch (request.kind) {
    case LogKind::kTelephony:
      return request.compress ? "-telephony.zip" : "-telephony";
    case LogKind::kTelephonyWithCoreDump:
      return request.compress ? "-coredump.zip" : "-coredump";
    case LogKind::kBaseband:
      break;
  }
  if (request.compress) {
    return "-baseband.zip";
  }
  return kst::trace::basebandFolderSuffix();
}

/// The folders of logs below the scratch folder that a collection of this kind takes.
std::vector<std::string> sourceFolders(LogKind kind) {
  const struct {
    const char* folder;
    bool isBaseband;  // also in a collection of baseband logs alone
  } logs[] = {
      {kst::trace::kTEL, false},
      {diag::config::kDIAGScratchDir, true},
  };
  std::vector<std::string> folders;
  for (const auto& log : logs) {
    if (log.isBaseband || kind != LogKind::kBaseband) {
      folders.emplace_back(log.folder);
    }
  }
  return folders;
}

timeval presentTime() {
  timeval time{};
  TimestampSet::now(time);
  return time;
}

/// Waits for another process's collection as long as this one may take.
std::function<bool()> patience(const Deadline& deadline) {
  return [&deadline] {
    constexpr std::chrono::milliseconds kLookInterval{10};
    deadline.throwIfCancelled();
    std::this_thread::sleep_for(kLookInterval);
    return !deadline.hasPassed();
  };
}

/// One collection, from the request to the snapshot. Its steps throw CollectionError.
class Collection {
 public:
  Collection(const DevicePaths& devicePaths, const Limits& collectionLimits,
             const CollectionRequest& collectionRequest, const std::function<bool()>& isCancelled)
      : paths(devicePaths),
        limits(collectionLimits),
        request(collectionRequest),
        deadline(limits.collectionTime, isCancelled),
        store(paths.staging, paths.snapshots, limits, patience(deadline)),
        start(presentTime()),
        writer(makeWriter()) {}

  CollectionOutcome run() {
    indicate();
    if (request.kind == LogKind::kTelephonyWithCoreDump) {
      copyCoreDump(takeCoreDump(paths, request, limits.coreDumpTime, deadline, report));
    }
    copyLogs();
    writeInfo();
    writer->finish();
    const SnapshotName name = store.publish(request.compress, start, snapshotSuffix(request));
    // The logs are safe: what goes wrong with older ones is worth a word, but no failure.
    if (const auto failure = store.removeOld(name, [this] { return !deadline.isCancelled(); })) {
      report.remark(*failure);
    }
    return {.result = {0, report.summary()},
            .timestamp = name.timestamp,
            .path = kst::support::childPath(paths.snapshots, name.text()),
            .bytes = store.sizeOf({name}),
            .files = report.fileCount()};
  }

 private:
  [[nodiscard]] std::unique_ptr<SnapshotWriter> makeWriter() const {
    const auto make = request.compress ? makeZipWriter : makeFolderWriter;
    return make(store.stagingFolder(), SnapshotStore::stagedName(request.compress));
  }

  void indicate() {
    if (request.isIndicated && indication.emplace(paths.dumpIndication).problem()) {
      report.remark("no dump indication: " + *indication->problem());
    }
  }

  /// Half a dump is none.
  void copyCoreDump(OpenLog dump) {
    copy(dump, dump.record.size);
    if (dump.record.fate != Fate::kWhole) {
      giveUp(kst::kResultNoCoreDump, dump.record.name + ": " + dump.record.why);
    }
    report.add(std::move(dump.record));
  }

  void copyLogs() {
    LogSources sources(paths.scratch, sourceFolders(request.kind), limits, deadline, report);
    for (auto batch = sources.openNext(); !batch.empty(); batch = sources.openNext()) {
      for (OpenLog& log : batch) {
        copy(log, limits.maxSource.value_or(log.record.size));
        log.file.close();
        report.add(std::move(log.record));
      }
      batch.clear();
    }
    outOfTime = outOfTime || !sources.isAtEnd();
    for (const Failure& limit : {outOfTime ? Failure(kTimeWasOver) : Failure(), outOfRoom}) {
      if (limit) {
        report.remark("not all logs were collected: " + *limit);
      }
    }
    const bool failed = report.count(Fate::kUnreadable) > 0;
    if (report.fileCount() == 0 && (failed || outOfTime || outOfRoom)) {
      giveUp(kst::kResultCollectionFailed,
             "nothing could be read: " + report.firstReason(Fate::kUnreadable));
    }
  }

  /// Ends a collection that has nothing worth keeping. A limit that was met is the reason, before
  /// any other.
  [[noreturn]] void giveUp(std::int32_t status, const std::string& text) const {
    if (outOfTime) {
      throw CollectionError(kst::kResultTimeOver, "the collection took too long");
    }
    if (outOfRoom) {
      throw CollectionError(kst::kResultNoRoom, *outOfRoom + " in " + paths.snapshots);
    }
    throw CollectionError(status, text);
  }

  /// Copies what the log held when it was opened, at most `limit` bytes, and notes what became of
  /// it.
  void copy(OpenLog& log, std::uint64_t limit) {
    LogRecord& record = log.record;
    // The most that a file takes beside its content, whatever the form of the snapshot.
    constexpr std::uint64_t kFileOverhead = 8192;
    if (const auto lacking = lackFor(kFileOverhead + 2 * record.name.size())) {
      note(record, Fate::kLeftOut, *lacking);
      return;
    }
    if (!writer->begin(record)) {
      note(record, Fate::kUnreadable, "its name is taken or too long");
      return;
    }
    record.collected = 0;
    const std::uint64_t wanted = std::min(record.size, limit);
    while (record.fate == Fate::kWhole && *record.collected < wanted) {
      copyPiece(log, wanted - *record.collected);
    }
    writer->end();
    if (record.fate == Fate::kWhole && wanted < record.size) {
      note(record, Fate::kCut, "max_source");
    }
  }

  void copyPiece(OpenLog& log, std::uint64_t rest) {
    LogRecord& record = log.record;
    const auto length = static_cast<std::size_t>(std::min<std::uint64_t>(rest, buffer.size()));
    if (const auto lacking = lackFor(length)) {
      note(record, Fate::kCut, *lacking);
      return;
    }
    const ssize_t count = read(log.file.get(), buffer.data(), length);
    if (count > 0) {
      const auto size = static_cast<std::size_t>(count);
      writer->write(std::string_view(buffer.data(), size));
      *record.collected += size;
    } else if (count == 0) {
      note(record, Fate::kCut, "it became shorter");
    } else if (errno != EINTR) {
      note(record, Fate::kCut, std::generic_category().message(errno));
    }
  }

  /// What lacks for so many bytes more of a log, if anything does.
  Failure lackFor(std::uint64_t bytes) {
    deadline.throwIfCancelled();
    if (deadline.hasPassed()) {
      outOfTime = true;
      return kTimeWasOver;
    }
    constexpr std::uint64_t kSlack = 65'536;  // of a compression that makes it longer, and buffers
    const std::uint64_t more = bytes + report.infoSize() + kSlack;
    // For less there may be room still.
    if (more < tooMuch) {
      auto lacking = store.makeRoom(writer->room(), more);
      if (!lacking) {
        return {};
      }
      outOfRoom = std::move(lacking);
      tooMuch = more;
    }
    return outOfRoom;
  }

  static void note(LogRecord& record, Fate fate, const std::string& why) {
    record.fate = fate;
    record.why = why;
  }

  void writeInfo() {
    const std::string text = report.info(request, start);
    LogRecord record{.name = kst::support::lastPathComponent(kst::trace::kKSTInfoFilename),
                     .size = text.size(),
                     .modified = {.tv_sec = start.tv_sec, .tv_nsec = start.tv_usec * 1000}};
    if (!writer->begin(record)) {
      throw CollectionError(kst::kResultCollectionFailed, "a log has the name of " + record.name);
    }
    for (std::size_t done = 0; done < text.size(); done += buffer.size()) {
      writer->write(std::string_view(text).substr(done, buffer.size()));
    }
    writer->end();
  }

  const DevicePaths& paths;
  const Limits& limits;
  const CollectionRequest& request;
  const Deadline deadline;
  SnapshotStore store;  // removes what is staged, so it must go after `writer`
  std::optional<DumpIndication> indication;
  const timeval start;
  Report report;
  const std::unique_ptr<SnapshotWriter> writer;
  std::vector<char> buffer = std::vector<char>(std::size_t{1} << 18);
  bool outOfTime = false;
  Failure outOfRoom;                                                  // what lacked
  std::uint64_t tooMuch = std::numeric_limits<std::uint64_t>::max();  // bytes that it lacked for
};

}  // namespace

CollectionOutcome failedCollection(std::int32_t status, const std::string& text) {
  return {.result = {status, printable(text)}, .timestamp = {}, .path = {}};
}

Collector::Collector(const DevicePaths& devicePaths, const Limits& collectionLimits)
    : paths(devicePaths), limits(collectionLimits) {}

CollectionOutcome Collector::collect(const CollectionRequest& request,
                                     const std::function<bool()>& isCancelled) const {
  try {
    return Collection(paths, limits, request, isCancelled).run();
  } catch (const CollectionError& error) {
    return failedCollection(error.status, error.what());
  } catch (const std::exception& error) {
    return failedCollection(kst::kResultCollectionFailed, error.what());
  }
}

Failure Collector::clearRemains() const {
  try {
    const SnapshotStore store(paths.staging, paths.snapshots, limits, [] { return false; });
    DumpIndication::clear(paths.dumpIndication);
  } catch (const CollectionError& error) {
    return error.status == kst::kResultTimeOver ? Failure() : error.what();
  }
  return {};
}

}  // namespace collection
