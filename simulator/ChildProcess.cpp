#include "simulator/ChildProcess.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <system_error>
#include <utility>

#include "simulator/Pipe.h"
#include "simulator/Signals.h"
#include "support/FileOperations.h"

namespace simulator {
namespace {

/// What follows runs in the child, on the way to exec(3), and uses async-signal-safe calls only.

void leaveTerminal() {
  setpgid(0, 0);
  const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
  dup2(nothing, STDIN_FILENO);
  dup2(nothing, STDOUT_FILENO);
}

[[noreturn]] void become(char* const* arguments, const ChildProcess::Launch& launch, int errors,
                         pid_t parent, int errorPipe) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  // The simulator may have been killed before that was set.
  if (getppid() != parent) {
    _exit(1);
  }
  if (launch.background) {
    leaveTerminal();
  }
  if (errors >= 0) {
    dup2(errors, STDERR_FILENO);
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

kst::support::Descriptor openErrorFile(const std::string& path) {
  kst::support::Descriptor file(
      kst::support::openPath(path, O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
  if (!file) {
    throw std::system_error(errno, std::generic_category(), path);
  }
  return file;
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
  if (!launch.errorFile.empty()) {
    errors = openErrorFile(launch.errorFile);
    errorsBegin = lseek(errors.get(), 0, SEEK_END);
  }
  std::vector<std::string> command = launch.command;
  const std::vector<char*> arguments = argumentPointers(command);
  const pid_t parent = getpid();
  Pipe errorPipe;
  process = fork();
  const int forkError = errno;
  if (process == 0) {
    become(arguments.data(), launch, errors.get(), parent, errorPipe.writer.get());
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
      errors(std::move(other.errors)),
      errorsBegin(other.errorsBegin),
      process(std::exchange(other.process, -1)),
      waitStatus(other.waitStatus) {}

ChildProcess::~ChildProcess() {
  if (process > 0) {
    awaitEnd(Clock::now());
  }
}

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

void ChildProcess::askToEnd(int signal) {
  send(signal);
  wake();
}

void ChildProcess::awaitEnd(Clock::time_point deadline) {
  while (!hasEnded() && Clock::now() < deadline) {
    awaitChildSignal(std::chrono::milliseconds(100));
  }
  send(SIGKILL);
  while (!hasEnded()) {
    awaitChildSignal(std::chrono::milliseconds(100));
  }
}

std::string ChildProcess::withErrors(const std::string& text) const {
  std::string written;
  std::array<char, 4096> buffer;
  ssize_t count = 0;
  while ((count = pread(errors.get(), buffer.data(), buffer.size(),
                        errorsBegin + static_cast<off_t>(written.size()))) > 0) {
    written.append(buffer.data(), static_cast<std::size_t>(count));
  }
  // What prints the text ends the line.
  written.erase(written.find_last_not_of('\n') + 1);
  return written.empty() ? text : text + ": " + written;
}

}  // namespace simulator
