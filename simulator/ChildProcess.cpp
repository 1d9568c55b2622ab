#include "simulator/ChildProcess.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <system_error>
#include <utility>

#include "simulator/Pipe.h"
#include "simulator/Signals.h"
#include "support/FileOperations.h"

namespace simulator {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kStopLimit{5};

/// What follows runs in the child, on the way to exec(3), and uses async-signal-safe calls only.

void leaveTerminal() {
  setpgid(0, 0);
  const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
  dup2(nothing, STDIN_FILENO);
  dup2(nothing, STDOUT_FILENO);
}

void redirectErrors(const char* path) {
  const int file = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  dup2(file, STDERR_FILENO);
}

[[noreturn]] void become(char* const* arguments, const ChildProcess::Launch& launch, pid_t parent,
                         int errorPipe) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  // The simulator may have been killed before that was set.
  if (getppid() != parent) {
    _exit(1);
  }
  if (launch.background) {
    leaveTerminal();
  }
  if (!launch.errorFile.empty()) {
    redirectErrors(launch.errorFile.c_str());
  }
  for (const int descriptor : launch.descriptors) {
    fcntl(descriptor, F_SETFD, 0);
  }
  resetSignals();
  execvp(arguments[0], arguments);
  const int error = errno;
  kst::support::writeFully(errorPipe, &error, sizeof error);
  _exit(1);
}

/// The error number that the child has sent, 0 if it sent none before its end of the pipe was
/// closed.
int readError(int errorPipe) {
  int error = 0;
  ssize_t count = 0;
  do {
    count = read(errorPipe, &error, sizeof error);
  } while (count < 0 && errno == EINTR);
  return count == sizeof error ? error : 0;
}

std::vector<char*> argumentPointers(std::vector<std::string>& command) {
  std::vector<char*> pointers;
  pointers.reserve(command.size() + 1);
  for (std::string& argument : command) {
    pointers.push_back(argument.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace

ChildProcess::ChildProcess(const Launch& launch)
    : program(kst::support::lastPathComponent(launch.command.front())) {
  std::vector<std::string> command = launch.command;
  const std::vector<char*> arguments = argumentPointers(command);
  const pid_t parent = getpid();
  Pipe errorPipe;
  process = fork();
  const int forkError = errno;
  if (process == 0) {
    become(arguments.data(), launch, parent, errorPipe.writer.get());
  }
  errorPipe.writer.close();
  const int error = process < 0 ? forkError : readError(errorPipe.reader.get());
  if (error == 0) {
    return;
  }
  if (process > 0) {
    waitpid(process, nullptr, 0);
  }
  throw std::system_error(error, std::generic_category(), launch.command.front());
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : program(std::move(other.program)),
      process(std::exchange(other.process, -1)),
      waitStatus(other.waitStatus) {}

ChildProcess::~ChildProcess() { stop(); }

bool ChildProcess::hasEnded() {
  int status = 0;
  if (!waitStatus && waitpid(process, &status, WNOHANG) == process) {
    waitStatus = status;
  }
  return waitStatus.has_value();
}

int ChildProcess::exitStatus() const {
  const int status = waitStatus.value_or(0);
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

void ChildProcess::send(int signal) {
  if (!hasEnded()) {
    kill(process, signal);
  }
}

void ChildProcess::stop(int signal) {
  if (process < 0) {
    return;
  }
  send(signal);
  // One that is stopped gets to see the signal only when it goes on.
  send(SIGCONT);
  const Clock::time_point deadline = Clock::now() + kStopLimit;
  while (!hasEnded() && Clock::now() < deadline) {
    awaitChildSignal(std::chrono::milliseconds(100));
  }
  send(SIGKILL);
  while (!hasEnded()) {
    awaitChildSignal(std::chrono::milliseconds(100));
  }
}

}  // namespace simulator
