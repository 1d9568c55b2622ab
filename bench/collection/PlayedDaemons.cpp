#include "bench/collection/PlayedDaemons.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <stdexcept>
#include <vector>

#include "support/FileOperations.h"
#include "support/RecordLock.h"

namespace played {
namespace {

using kst::support::Descriptor;

constexpr std::array kPatterns = {
    "reg: camped on cell ##-#### band 2#, signal -#9 dBm, quality -1# dB",
    "call: line # idle, # calls held",
    "data: bearer # up, uplink #### kB, downlink ##### kB",
    "diag 0x1#A# L1 slot #### gain ## agc -#8",
    "diag 0x4#B# rf path # calibrated, temperature 3# C",
    "sim: file 6F#7 refreshed in # ms",
    "power: entering slow cycle, paging every ###0 ms",
};

Descriptor openFile(const std::string& path, int access) {
  return Descriptor(kst::support::openPath(path, access | O_CREAT | O_CLOEXEC, 0644));
}

}  // namespace

void makeLogs(const std::string& folder, int count, std::size_t size) {
  std::filesystem::create_directories(folder);
  simulator::LogLines lines("daemon", kPatterns);
  for (int number = 0; number < count; ++number) {
    std::string text;
    while (text.size() < size) {
      text += lines.next() + "\n";
    }
    text.resize(size);
    std::ofstream(folder + "/trace." + std::to_string(number)) << text;
  }
}

void makeCoreDump(const std::string& path) {
  constexpr std::size_t kPiece = std::size_t{512} << 10;  // bytes
  std::mt19937_64 random(std::random_device{}());
  std::vector<std::uint64_t> pieces(2 * kPiece / sizeof(std::uint64_t));
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream file(path);
  for (int count = 0; count < 1024; ++count) {
    std::generate_n(pieces.begin(), pieces.size() / 2, std::ref(random));
    file.write(reinterpret_cast<const char*>(pieces.data()), 2 * kPiece);
  }
}

TelephonyDaemon::TelephonyDaemon(const std::string& folder)
    : lines("Corvend", kPatterns),
      lockFile(openFile(collection::lockFileOf(folder), O_RDWR)),
      log(openFile(folder + "/telephony.log", O_WRONLY)) {}

Milliseconds TelephonyDaemon::writeLine() {
  constexpr std::size_t kLength = 60;
  const std::string line = lines.next().substr(0, kLength) + "\n";
  const auto start = std::chrono::steady_clock::now();
  const bool isLocked = setLock(F_WRLCK);
  const Milliseconds wait = std::chrono::steady_clock::now() - start;
  const bool isWritten = pwrite(log.get(), line.data(), line.size(), 0) > 0;
  const bool isReleased = setLock(F_UNLCK);
  return isLocked && isWritten && isReleased ? wait : kNever;
}

bool TelephonyDaemon::setLock(short type) const {
  return kst::support::setRecordLock(lockFile.get(), F_SETLKW, type);
}

BasebandDaemon::BasebandDaemon(const collection::DevicePaths& paths)
    : dump(paths.coreDumps + "/core.bin"), ready(paths.coreDumps + "/.core.bin") {
  if (const auto failure = control.open(paths.basebandControl)) {
    throw std::runtime_error(*failure);
  }
  thread = std::jthread([this](const std::stop_token& stop) {
    while (!stop.stop_requested()) {
      if (!control.wait(std::chrono::milliseconds(20)).empty()) {
        kst::support::renamePath(ready, dump);
      }
    }
  });
}

void BasebandDaemon::makeReady() const { kst::support::renamePath(dump, ready); }

}  // namespace played
