// The simulated telephony daemon: writes its log until it is told to end by SIGTERM.

#include <array>
#include <chrono>
#include <iostream>
#include <thread>

#include "collection/DevicePaths.h"
#include "platform/options/ProgramOptions.h"
#include "simulator/LogLines.h"
#include "simulator/RotatingLog.h"

namespace {

constexpr std::array kPatterns = {
    "reg: camped on cell ##-#### band 2#, signal -#9 dBm, quality -1# dB",
    "reg: periodic location update accepted, area 0x3#8#",
    "call: line # idle, # calls held",
    "data: bearer # up, uplink #### kB, downlink ##### kB",
    "data: bearer # keep-alive answered after ## ms",
    "sms: queue empty, last reference ###",
    "sim: file 6F#7 refreshed in # ms",
    "power: entering slow cycle, paging every ###0 ms",
    "cell: neighbour ##-#### at -1## dBm, reselection not needed",
};

constexpr std::chrono::milliseconds kLineInterval{100};

}  // namespace

int main(int argc, char** argv) {
  const DaemonOptions options =
      readDaemonOptions(argc, argv, "Corvend", "The simulated telephony daemon: writes its log.");
  if (!options.root) {
    return options.exitStatus;
  }
  simulator::RotatingLog log(collection::DevicePaths(*options.root).telephonyLogs, "telephony.log",
                             {.fileSize = 65'536, .olderFiles = 3});
  if (const auto failure = log.open()) {
    std::cerr << "Corvend: " << *failure << std::endl;
    return 1;
  }
  simulator::LogLines lines("Corvend", kPatterns);
  while (true) {
    log.append(lines.next());
    std::this_thread::sleep_for(kLineInterval);
  }
}
