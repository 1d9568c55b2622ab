// The simulated baseband daemon: writes its trace and, on request, core dumps until it is told to
// end by SIGTERM.

#include <array>
#include <chrono>
#include <initializer_list>
#include <iostream>

#include "collection/DevicePaths.h"
#include "platform/options/ProgramOptions.h"
#include "simulator/ControlPipe.h"
#include "simulator/CoreDumpFolder.h"
#include "simulator/LogLines.h"
#include "simulator/RotatingLog.h"

namespace {

constexpr std::array kPatterns = {
    "diag 0x1#A# L1 slot #### gain ## agc -#8",
    "diag 0x2#0# L2 window ## retransmissions #",
    "diag 0x3#F# L3 timer T3#1# started",
    "diag 0x4#B# rf path # calibrated, temperature 3# C",
    "diag 0x5#1# heap 5#### of 65536 kB used",
    "diag 0x6#C# mailbox # depth ##",
    "diag 0x7#E# clock drift 0.### ppm",
};

constexpr std::chrono::milliseconds kLineInterval{100};

void report(const collection::Failure& failure) {
  if (failure) {
    std::cerr << "vexild: " << *failure << std::endl;
  }
}

}  // namespace

int main(int argc, char** argv) {
  const DaemonOptions options = readDaemonOptions(
      argc, argv, "vexild",
      "The simulated baseband daemon: writes its trace and, on request, core dumps.");
  if (!options.root) {
    return options.exitStatus;
  }
  const collection::DevicePaths paths(*options.root);
  const simulator::CoreDumpFolder dumps(paths.coreDumps);
  simulator::ControlPipe control;
  simulator::RotatingLog log(paths.basebandLogs, "diag.log", {.fileSize = 65'536, .olderFiles = 7});
  for (const collection::Failure& failure :
       {dumps.open(), control.open(paths.basebandControl), log.open()}) {
    if (!failure) {
      continue;
    }
    report(failure);
    return 1;
  }
  simulator::LogLines lines("vexild", kPatterns);
  while (true) {
    log.append(lines.next());
    for (const std::string& request : control.wait(kLineInterval)) {
      log.append("vexild: reset requested: " + request);
      report(dumps.write(request));
    }
  }
}
