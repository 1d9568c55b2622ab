#pragma once

#include <sys/types.h>

#include <csignal>
#include <optional>
#include <string>
#include <vector>

namespace simulator {

/// A child process: ends when this object goes, and is killed when the simulator is.
class ChildProcess {
 public:
  struct Launch {
    /// The program, looked for in PATH if it has no "/", and its arguments.
    std::vector<std::string> command;

    /// Out of the terminal's reach: a process group of its own, no standard input and output.
    bool background = false;

    /// The file to which standard error goes; empty: to that of the simulator.
    std::string errorFile{};

    /// Open descriptors that the child keeps.
    std::vector<int> descriptors{};
  };

  /// Throws std::system_error, with the error number of exec(3), when the program cannot be
  /// started. REQUIRES: the main thread.
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

  /// Has it end by `signal`, or by SIGKILL if that does not work within 5 s, and waits for that.
  void stop(int signal = SIGTERM);

 private:
  void send(int signal);

  std::string program;
  pid_t process = -1;             // -1: none, as after a move
  std::optional<int> waitStatus;  // of waitpid(2); set when the process has ended
};

}  // namespace simulator
