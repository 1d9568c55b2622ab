#include "tests/e2e/Program.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace {

struct Pipe {
  Pipe() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
      throw std::runtime_error("no pipe");
    }
    read = ends[0];
    write = ends[1];
  }
  int read;
  int write;
};

std::string pathOf(const std::string& program) {
  const auto beside = std::filesystem::read_symlink("/proc/self/exe").parent_path() / program;
  return std::filesystem::exists(beside) ? beside.string() : program;
}

/// In the child, between fork and exec.
[[noreturn]] void become(const std::vector<std::string>& args,
                         const std::map<std::string, std::string>& environment) {
  std::vector<char*> words;
  for (const std::string& arg : args) {
    words.push_back(const_cast<char*>(arg.c_str()));
  }
  words.push_back(nullptr);
  for (const auto& [name, value] : environment) {
    setenv(name.c_str(), value.c_str(), 1);
  }
  execvp(pathOf(args.front()).c_str(), words.data());
  _exit(127);
}

}  // namespace

Program::Program(const std::vector<std::string>& args,
                 const std::map<std::string, std::string>& environment, Streams streams) {
  signal(SIGPIPE, SIG_IGN);
  if (streams == Streams::kTerminal) {
    process = forkpty(&outputEnd, nullptr, nullptr, nullptr);
    if (process == 0) {
      signal(SIGPIPE, SIG_DFL);
      become(args, environment);
    }
    input = fcntl(outputEnd, F_DUPFD_CLOEXEC, 0);
    return;
  }
  const Pipe in;
  const Pipe out;
  const Pipe err;
  process = fork();
  if (process == 0) {
    signal(SIGPIPE, SIG_DFL);
    dup2(in.read, STDIN_FILENO);
    dup2(out.write, STDOUT_FILENO);
    dup2(err.write, STDERR_FILENO);
    become(args, environment);
  }
  close(in.read);
  close(out.write);
  close(err.write);
  input = in.write;
  outputEnd = out.read;
  errorEnd = err.read;
}

Program::~Program() {
  closeInput();
  close(outputEnd);
  close(errorEnd);
  if (process > 0) {
    kill(process, SIGKILL);
    waitpid(process, nullptr, 0);
  }
}

void Program::write(const std::string& text) const {
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t n = ::write(input, text.data() + done, text.size() - done);
    if (n < 0) {
      return;  // the program has closed its end
    }
    done += static_cast<std::size_t>(n);
  }
}

void Program::closeInput() {
  close(input);
  input = -1;
}

/// Waits for something on either stream; false when both have ended.
bool Program::readSome() {
  if (outputEnd < 0 && errorEnd < 0) {
    return false;
  }
  std::array<pollfd, 2> ends = {pollfd{outputEnd, POLLIN, 0}, pollfd{errorEnd, POLLIN, 0}};
  if (poll(ends.data(), ends.size(), 30'000) <= 0) {
    ADD_FAILURE() << "nothing more within 30 s after: " << output;
    return false;
  }
  std::array<char, 65536> buffer;
  for (pollfd& end : ends) {
    if (end.revents == 0) {
      continue;
    }
    const bool isOutput = end.fd == outputEnd;
    const ssize_t n = read(end.fd, buffer.data(), buffer.size());
    if (n > 0) {
      (isOutput ? output : errors).append(buffer.data(), static_cast<std::size_t>(n));
    } else {
      close(end.fd);
      (isOutput ? outputEnd : errorEnd) = -1;
    }
  }
  return outputEnd >= 0 || errorEnd >= 0;
}

std::string Program::readUntil(const std::string& text) {
  std::size_t found = output.find(text);
  while (found == std::string::npos) {
    if (!readSome()) {
      ADD_FAILURE() << "no '" << text << "' in: " << output << errors;
      return output;
    }
    found = output.find(text);
  }
  std::string taken = output.substr(0, found + text.size());
  output.erase(0, taken.size());
  return taken;
}

int Program::finish() {
  closeInput();
  while (readSome()) {
  }
  int status = 0;
  waitpid(process, &status, 0);
  process = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

pid_t Program::child(const std::string& name) const {
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    std::ifstream file(entry.path() / "stat");
    std::string id;
    std::string itsName;
    std::string state;
    pid_t parent = 0;
    file >> id >> itsName >> state >> parent;
    if (parent == process && itsName == "(" + name + ")" && state != "Z") {
      return std::stoi(id);
    }
  }
  return -1;
}

Finished runProgram(const std::vector<std::string>& args,
                    const std::map<std::string, std::string>& environment,
                    const std::string& input) {
  Program program(args, environment);
  program.write(input);
  const int status = program.finish();
  return {status, program.output, program.errors};
}
