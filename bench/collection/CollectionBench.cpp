// Measures collections of the manager service, side by side with zip(1) and cp(1) on the same
// files, and how long the daemons and the clients of the service wait meanwhile. Plays the daemons
// itself, so run it on a fresh simulated device without any: kst-simulator --absent corvend
// --absent vexild --absent helper -- collection_bench

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/collection/PlayedDaemons.h"
#include "collection/DevicePaths.h"
#include "platform/client/ManagerClient.h"
#include "platform/dbus/Peer.h"
#include "platform/dbus/SdBus.h"

namespace {

namespace fs = std::filesystem;

using Clock = std::chrono::steady_clock;
using collection::DevicePaths;
using played::kNever;
using played::Milliseconds;

constexpr int kRounds = 3;
constexpr std::chrono::milliseconds kInterval{3};  // between two lines and between two questions
constexpr std::size_t kKibibyte = 1024;
constexpr double kMebibyte = 1024.0 * 1024.0;

/// Runs a line of shell with arguments from $1 on.
void shell(const std::string& line, std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), {"sh", "-c", line, "sh"});
  std::vector<char*> words;
  words.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) {
    words.push_back(argument.data());
  }
  words.push_back(nullptr);
  pid_t child = -1;
  int status = 0;
  if (posix_spawnp(&child, "sh", nullptr, nullptr, words.data(), environ) != 0 ||
      waitpid(child, &status, 0) != child || status != 0) {
    throw std::runtime_error("failed: " + line);
  }
}

/// The manager service: what it does, and what the kernel counts of it.
class Service {
 public:
  Service() {
    sd_bus* opened = nullptr;
    sd_bus_creds* creds = nullptr;
    if (sd_bus_open_system(&opened) < 0) {
      throw std::runtime_error("there is no bus");
    }
    bus.reset(opened);
    if (sd_bus_get_name_creds(opened, dbus::kManager.service, SD_BUS_CREDS_PID, &creds) < 0) {
      throw std::runtime_error("the manager is not on the bus");
    }
    pid_t pid = 0;
    sd_bus_creds_get_pid(creds, &pid);
    sd_bus_creds_unref(creds);
    process = "/proc/" + std::to_string(pid);
  }

  /// How long the service has taken to tell its state. For one thread at a time.
  Milliseconds askState() {
    const auto start = Clock::now();
    char* state = nullptr;
    const int result = sd_bus_get_property_string(bus.get(), dbus::kManager.service,
                                                  dbus::kManager.path, dbus::kManager.interface,
                                                  dbus::kServerStateProperty, nullptr, &state);
    const Milliseconds wait = Clock::now() - start;
    std::free(state);
    return result < 0 ? kNever : wait;
  }

  /// Throws unless all was collected: what is left out takes no time.
  void collect(const std::string& action, bool compress) {
    MessageDict request;
    request.set(kst::kKeyTraceAction, action);
    request.set(kst::kKeyTraceDumpStatePerformCompression, compress);
    MessageValue reply;
    const CommandResult result =
        kst::client::PerformCommand(client, kst::kCommandTraceDumpState, request, reply);
    if (result.status != 0 || !result.text.empty()) {
      throw std::runtime_error("incomplete collection: " + result.text);
    }
  }

  /// Bytes of all its calls that write, to the bus excepted, which takes other calls.
  [[nodiscard]] double written() const { return counted("io", "wchar:"); }

  [[nodiscard]] double peakMebibytes() const { return counted("status", "VmHWM:") / kKibibyte; }

  void resetPeak() const { std::ofstream(process + "/clear_refs") << "5"; }

 private:
  [[nodiscard]] double counted(const std::string& file, const std::string& key) const {
    std::ifstream words(process + "/" + file);
    for (std::string word; words >> word;) {
      double number = 0;
      if (word == key && words >> number) {
        return number;
      }
    }
    throw std::runtime_error("no " + key + " in " + process + "/" + file);
  }

  dbus::BusPtr bus;
  std::string process;
  std::shared_ptr<ManagerClient> client =
      kst::client::CreateManager("collection_bench", TaskQueue::create("bench"));
};

/// Does something again and again on a thread of its own, and keeps the longest of the times that
/// it gives.
class Repeated {
 public:
  explicit Repeated(std::function<Milliseconds()> step)
      : thread([this, step = std::move(step)](const std::stop_token& stop) {
          while (!stop.stop_requested()) {
            longest = std::max(longest, step());
            std::this_thread::sleep_for(kInterval);
          }
        }) {}

  Milliseconds finish() {
    thread.request_stop();
    thread.join();
    return longest;
  }

 private:
  Milliseconds longest{};
  std::jthread thread;
};

std::string decimal(double number) {
  std::array<char, 40> buffer{};
  std::snprintf(buffer.data(), buffer.size(), "%.2f", number);
  return buffer.data();
}

/// The times of all rounds, which tell how noisy the machine was.
std::string all(const std::vector<double>& times) {
  std::string text;
  for (const double time : times) {
    text += text.empty() ? "" : " ";
    text += decimal(time);
  }
  return text;
}

double median(std::vector<double> numbers) {
  std::sort(numbers.begin(), numbers.end());
  return numbers.at(numbers.size() / 2);
}

/// One line: a figure, its target, and what it was made of.
void print(const std::string& title, const std::string& figure, const std::string& target,
           const std::string& details) {
  std::printf("%-64s %5s  [%s]  (%s)\n", title.c_str(), figure.c_str(), target.c_str(),
              details.c_str());
  std::fflush(stdout);
}

/// Upper limits, as they are printed.
struct Targets {
  const char* time = "-";
  const char* size = "-";
  const char* written = "-";
  const char* peak = "-";
};

class Bench {
 public:
  explicit Bench(const std::string& root) : paths(root), comparison(root + "/comparison") {
    constexpr std::uintmax_t kRoom = std::uintmax_t{4} << 30;
    if (fs::exists(paths.scratch) || fs::space(root).available < kRoom) {
      throw std::runtime_error(root + " must be a fresh device with 4 GiB of room");
    }
  }

  void run() {
    played::makeLogs(paths.telephonyLogs, 10'000, 16 * kKibibyte);
    compare("10,000 logs", kst::kCollectTelephonyLogs, true, {});
    played::makeCoreDump(baseband.dump);
    compare("logs, core dump", kst::kCollectTelephonyLogsWithCoredump, true,
            {.time = "0.60", .size = "1.15", .written = "1.02", .peak = "40"});
    compare("logs, core dump", kst::kCollectTelephonyLogsWithCoredump, false, {.time = "1.30"});
    fs::remove_all(paths.scratch);
    played::makeLogs(paths.telephonyLogs, 50'000, kKibibyte);
    compare("50,000 logs", kst::kCollectTelephonyLogs, true, {.peak = "40"});
    fs::remove_all(paths.scratch);
    played::makeLogs(paths.telephonyLogs, 4, 64 * kKibibyte);
    played::makeLogs(paths.basebandLogs, 8, 64 * kKibibyte);
    collectOften(true);
    collectOften(false);
    print("longest wait of a daemon for its lock, ms", decimal(ours.lock.count()), "50",
          decimal(theirs.lock.count()) + " beside zip and cp");
    print("longest wait of a client for the server state, ms", decimal(ours.state.count()), "50",
          decimal(theirs.state.count()) + " beside zip and cp");
  }

 private:
  /// The longest ones while one of the sides worked.
  struct Waits {
    Milliseconds lock{};
    Milliseconds state{};
  };

  /// Has both sides work in turn, each of them first in every other round, and prints how they
  /// compare.
  void compare(const std::string& what, const char* action, bool compress, const Targets& targets) {
    readSources();
    std::vector<double> ourTimes;
    std::vector<double> theirTimes;
    double ourSize = 0;
    double theirSize = 0;
    double written = 0;
    double peak = 0;
    for (int turn = 0; turn < 2 * kRounds; ++turn) {
      const bool isOurs = turn % 4 == 0 || turn % 4 == 3;
      if (isOurs) {
        baseband.makeReady();
        service.resetPeak();
        const double before = service.written();
        ourTimes.push_back(measure(ours, [&] { service.collect(action, compress); }));
        ourSize = sizeOf(*fs::directory_iterator(paths.snapshots));
        written = std::max(written, (service.written() - before) / ourSize);
        peak = std::max(peak, service.peakMebibytes());
      } else {
        theirTimes.push_back(measure(theirs, [&] { runProgram(compress); }));
        theirSize = sizeOf(fs::directory_entry(comparison));
      }
      removeResults();
    }
    const std::string title = what + (compress ? ", zipped: " : ", uncompressed: ");
    print(title + (compress ? "time / zip -qr" : "time / cp -a, sync -f"),
          decimal(median(ourTimes) / median(theirTimes)), targets.time,
          "medians of " + all(ourTimes) + " / " + all(theirTimes) + " s");
    print(title + "size / size", decimal(ourSize / theirSize), targets.size,
          decimal(ourSize / kMebibyte) + " / " + decimal(theirSize / kMebibyte) + " MiB");
    print(title + "wchar of the service / size", decimal(written), targets.written, "the most");
    print(title + "VmHWM of the service, MiB", decimal(peak), targets.peak, "the most");
  }

  /// How long the work takes, in seconds: with the disk at rest before, and a daemon and a client
  /// beside it.
  double measure(Waits& waits, const std::function<void()>& work) {
    sync();
    played::TelephonyDaemon telephony(paths.telephonyLogs);
    Repeated writing([&telephony] { return telephony.writeLine(); });
    Repeated asking([this] { return service.askState(); });
    const auto start = Clock::now();
    work();
    const std::chrono::duration<double> time = Clock::now() - start;
    waits.lock = std::max(waits.lock, writing.finish());
    waits.state = std::max(waits.state, asking.finish());
    return time.count();
  }

  void runProgram(bool compress) const {
    shell(compress ? R"(mkdir "$2" && cd "$1" && zip -qr "$2/archive.zip" .)"
                   : R"(cp -a "$1" "$2" && sync -f "$2")",
          {paths.scratch, comparison});
  }

  void collectOften(bool compress) {
    std::vector<double> times;
    for (int round = 0; round < kRounds; ++round) {
      times.push_back(measure(ours, [&] {
        for (int count = 0; count < 100; ++count) {
          service.collect(kst::kCollectTelephonyLogs, compress);
        }
      }));
      removeResults();
    }
    print(std::string("100 collections of 12 logs, ") + (compress ? "zipped" : "uncompressed") +
              ": time, s",
          decimal(median(times)), "-", "median of " + all(times));
  }

  /// So both sides find the sources in memory.
  void readSources() const {
    shell(R"(find "$1" -type f -exec cat {} + >/dev/null)", {paths.scratch});
  }

  /// The bytes of a file or of all files below a folder.
  static double sizeOf(const fs::directory_entry& entry) {
    if (!entry.is_directory()) {
      return static_cast<double>(entry.file_size());
    }
    double size = 0;
    for (const fs::directory_entry& below : fs::directory_iterator(entry)) {
      size += sizeOf(below);
    }
    return size;
  }

  void removeResults() const {
    fs::remove_all(comparison);
    for (const fs::directory_entry& snapshot : fs::directory_iterator(paths.snapshots)) {
      fs::remove_all(snapshot);
    }
  }

  const DevicePaths paths;
  const std::string comparison;  // what zip and cp make
  played::BasebandDaemon baseband{paths};
  Service service;
  Waits ours;
  Waits theirs;
};

}  // namespace

int main() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): there is no other thread yet
  const char* const root = std::getenv("KESTRANE_ROOT");
  if (root == nullptr) {
    std::fprintf(stderr, "collection_bench: KESTRANE_ROOT is not set\n");
    return 2;
  }
  try {
    Bench(root).run();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "collection_bench: %s\n", error.what());
    return 1;
  }
  return 0;
}
