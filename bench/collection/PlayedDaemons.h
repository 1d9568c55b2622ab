#pragma once

#include <chrono>
#include <cstddef>
#include <limits>
#include <string>
#include <thread>

#include "collection/DevicePaths.h"
#include "simulator/ControlPipe.h"
#include "simulator/LogLines.h"
#include "support/Descriptor.h"

/// The daemons of a device as a benchmark needs them: with logs at once, and telling how long they
/// are held up.
namespace played {

using Milliseconds = std::chrono::duration<double, std::milli>;

/// How long something took that did not work.
inline constexpr Milliseconds kNever{std::numeric_limits<double>::infinity()};

/// Makes `count` logs of `size` bytes, each of lines of its own.
void makeLogs(const std::string& folder, int count, std::size_t size);

/// Makes a core dump of 1 GiB: pieces of random bytes and, as large ones, of zeros, which are
/// written like all others.
void makeCoreDump(const std::string& path);

/// Corvend: writes lines under the lock of its folder.
class TelephonyDaemon {
 public:
  explicit TelephonyDaemon(const std::string& folder);

  /// Writes a line in place of the last one, so that the log keeps its size. Gives the time that it
  /// has waited for the lock. For one thread at a time.
  Milliseconds writeLine();

 private:
  /// Waits for it; F_UNLCK gives it back.
  [[nodiscard]] bool setLock(short type) const;

  simulator::LogLines lines;
  const kst::support::Descriptor lockFile;
  const kst::support::Descriptor log;
};

/// vexild: moves a dump that is ready into its place when it is asked for one, on a thread of its
/// own.
class BasebandDaemon {
 public:
  explicit BasebandDaemon(const collection::DevicePaths& paths);

  /// Takes the dump out of its place again, if there is one.
  void makeReady() const;

  const std::string dump;  ///< where it stands when it was asked for

 private:
  const std::string ready;
  simulator::ControlPipe control;
  std::jthread thread;
};

}  // namespace played
