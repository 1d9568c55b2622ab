#pragma once

#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <optional>
#include <string>
#include <vector>

#include "support/Descriptor.h"

namespace simulator {

/// A child process: killed when this object goes, and when the simulator is.
class ChildProcess {
 public:
  using Clock = std::chrono::steady_clock;

  struct Launch {
    /// The program, looked for in PATH if it has no "/", and its arguments.
    std::vector<std::string> command;

    /// Out of the terminal's reach: a process group of its own, no standard input and output.
    bool background = false;

    /// The file to which standard error is appended, created with mode 0600; empty: to that of the
    /// simulator.
    std::string errorFile{};

    /// Open descriptors that the child keeps.
    std::vector<int> descriptors{};
  };

  /// Throws std::system_error, with the error number of exec(3), when the program cannot be
  /// started, or that of open(2) for its error file. REQUIRES: the main thread.
  explicit ChildProcess(const Launch& launch);
  ChildProcess(ChildProcess&& other) noexcept;
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ChildProcess& operator=(ChildProcess&&) = delete;
  ~ChildProcess();

  [[nodiscard]] const std::string& name() const { return program; }

  /// Whether it has ended. One that has leaves no zombie once this was asked.
  bool hasEnded();

  /// Its exit status as a shell gives it: 128 and the signal for one that was killed. REQUIRES: it
  /// has ended.
  [[nodiscard]] int exitStatus() const;

  /// `text`, and behind it what the process has written to its error file, if anything.
  [[nodiscard]] std::string withErrors(const std::string& text) const;

  /// Lets it go on if it is stopped, which shows a signal that it was sent meanwhile.
  void wake() { send(SIGCONT); }

  /// Asks it to end by `signal`, and does not wait for that.
  void askToEnd(int signal = SIGTERM);

  /// Waits until it has ended; one that has not by `deadline` is killed.
  void awaitEnd(Clock::time_point deadline);

 private:
  void send(int signal);

  std::string program;
  kst::support::Descriptor errors;  // the error file, if there is one
  off_t errorsBegin = 0;            // what stands before that is of earlier processes
  pid_t process = -1;               // -1: none, as after a move
  std::optional<int> waitStatus;    // of waitpid(2); set when the process has ended
};

}  // namespace simulator
