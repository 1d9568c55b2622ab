// Measures `ksttool logdump tel x` against a manager that answers at once, the same many times at
// one prompt and at several ones side by side, and the idle prompt. Run it on a simulated device
// without a manager of its own: kst-simulator --absent manager -- one_shot_bench

#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/client/Constants.h"
#include "platform/dbus/Service.h"

namespace {

using Milliseconds = std::chrono::duration<double, std::milli>;

void answerAtOnce(const std::shared_ptr<dbus::PerformCall>& call) {
  MessageDict reply;
  reply.set(kst::kKeyTimestampString, "2026-01-01-00-00-00-000");
  call->answer({}, reply);
}

struct Run {
  Milliseconds wall;
  long peakKilobytes;
};

Run runOnce() {
  const auto start = std::chrono::steady_clock::now();
  std::array<std::string, 4> words = {"ksttool", "logdump", "tel", "x"};
  std::array<char*, 5> args = {words[0].data(), words[1].data(), words[2].data(), words[3].data(),
                               nullptr};
  pid_t child = -1;
  int status = 0;
  rusage usage{};
  const bool ran = posix_spawnp(&child, "ksttool", nullptr, nullptr, args.data(), environ) == 0 &&
                   wait4(child, &status, 0, &usage) == child;
  const Milliseconds wall = std::chrono::steady_clock::now() - start;
  if (!ran || status != 0) {
    std::fprintf(stderr, "ksttool failed\n");
    std::exit(EXIT_FAILURE);
  }
  return {wall, usage.ru_maxrss};
}

/// What the kernel has counted of a process.
std::string statusLine(pid_t process, const std::string& key) {
  std::ifstream file("/proc/" + std::to_string(process) + "/status");
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with(key)) {
      return line;
    }
  }
  return key + " ?";
}

/// The CPU time of all threads, in nanoseconds.
unsigned long cpuTime(pid_t process) {
  timespec time{};
  clockid_t clock{};
  clock_getcpuclockid(process, &clock);
  clock_gettime(clock, &time);
  return static_cast<unsigned long>(time.tv_sec) * 1'000'000'000UL +
         static_cast<unsigned long>(time.tv_nsec);
}

void measureIdlePrompt() {
  std::array<int, 2> input{};
  if (pipe(input.data()) != 0) {
    std::exit(EXIT_FAILURE);
  }
  const pid_t child = fork();
  if (child == 0) {
    dup2(input[0], STDIN_FILENO);
    close(input[1]);
    execlp("ksttool", "ksttool", nullptr);
    _exit(127);
  }
  std::this_thread::sleep_for(std::chrono::seconds(1));
  const unsigned long before = cpuTime(child);
  std::this_thread::sleep_for(std::chrono::seconds(10));
  std::printf("\nCPU time in 10 s at the prompt: %lu ns\n%s\n", cpuTime(child) - before,
              statusLine(child, "VmHWM").c_str());
  constexpr std::string_view kQuit = "quit\n";
  int status = 0;
  if (write(input[1], kQuit.data(), kQuit.size()) < 0 || waitpid(child, &status, 0) != child ||
      status != 0) {
    std::fprintf(stderr, "ksttool failed\n");
    std::exit(EXIT_FAILURE);
  }
  close(input[1]);
}

/// When a tool showed its first prompt, and when it had ended.
struct Session {
  std::chrono::steady_clock::time_point begin;
  std::chrono::steady_clock::time_point end;
};

Session runSession(const std::string& input) {
  FILE* const output = popen(("exec ksttool <" + input).c_str(), "r");
  if (output == nullptr || std::fgetc(output) == EOF) {
    std::exit(EXIT_FAILURE);
  }
  Session session{.begin = std::chrono::steady_clock::now(), .end = {}};
  std::array<char, 65536> buffer;
  while (std::fread(buffer.data(), 1, buffer.size(), output) > 0) {
  }
  session.end = std::chrono::steady_clock::now();
  if (pclose(output) != 0) {
    std::fprintf(stderr, "ksttool failed\n");
    std::exit(EXIT_FAILURE);
  }
  return session;
}

/// Lets `tools` run as many commands each, side by side.
void measureCommands(std::size_t tools, int commands) {
  std::array<char, 32> input = {"/tmp/kst-commands-XXXXXX"};
  close(mkstemp(input.data()));
  std::ofstream lines(input.data());
  for (int command = 0; command < commands; ++command) {
    lines << "logdump tel x\n";
  }
  lines << "quit\n" << std::flush;
  std::vector<Session> sessions(tools);
  std::vector<std::thread> threads;
  threads.reserve(tools);
  for (Session& session : sessions) {
    threads.emplace_back([&] { session = runSession(input.data()); });
  }
  Milliseconds slowest{};
  auto begin = std::chrono::steady_clock::time_point::max();
  auto end = std::chrono::steady_clock::time_point::min();
  for (std::size_t tool = 0; tool < tools; ++tool) {
    threads[tool].join();
    slowest = std::max<Milliseconds>(slowest, sessions[tool].end - sessions[tool].begin);
    begin = std::min(begin, sessions[tool].begin);
    end = std::max(end, sessions[tool].end);
  }
  unlink(input.data());
  const Milliseconds whole = end - begin;
  std::printf("%zu at the prompt, %d commands each: %.0f commands/s in all, the slowest %.0f/s\n",
              tools, commands, 1000.0 * static_cast<double>(tools) * commands / whole.count(),
              1000.0 * commands / slowest.count());
}

}  // namespace

int main() {
  dbus::EventLoop loop;
  dbus::Service manager(loop, dbus::kManager, answerAtOnce, [] { std::exit(EXIT_FAILURE); });
  manager.setServerState(kst::kServerStateStarted);
  std::thread serving([&] { loop.run(); });

  std::vector<Milliseconds> walls;
  long peak = 0;
  for (int i = 0; i < 11; ++i) {
    const Run run = runOnce();
    walls.push_back(run.wall);
    peak = std::max(peak, run.peakKilobytes);
  }
  std::sort(walls.begin(), walls.end());
  std::printf("wall time over the half second, median of 11: %.2f ms (least %.2f, most %.2f)\n",
              walls[5].count() - 500, walls.front().count() - 500, walls.back().count() - 500);
  std::printf("peak memory: %ld KiB\n", peak);
  measureCommands(1, 10'000);
  measureCommands(10, 2'000);
  measureIdlePrompt();
  loop.stop();
  serving.join();
}
