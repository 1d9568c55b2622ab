#include "tests/e2e/Program.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "support/FileOperations.h"
#include "tests/e2e/Files.h"

using kst::support::Descriptor;

Words joined(Words first, const Words& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

Program::Program(const Words& args, const Variables& environment) {
  signal(SIGPIPE, SIG_IGN);
  // All is made before the fork: between that and exec a child of a process with threads may
  // allocate nothing.
  Words words = {"env"};
  for (const auto& [name, value] : environment) {
    words.push_back(name + "=" + value);
  }
  const auto beside = std::filesystem::read_symlink("/proc/self/exe").replace_filename(args[0]);
  words.push_back(std::filesystem::exists(beside) ? beside.string() : args[0]);
  words.insert(words.end(), args.begin() + 1, args.end());
  std::vector<char*> pointers;
  for (std::string& word : words) {
    pointers.push_back(word.data());
  }
  pointers.push_back(nullptr);
  std::array<int, 2> in{};
  std::array<int, 2> out{};
  errorFile = Descriptor(memfd_create("errors", MFD_CLOEXEC));
  if (pipe2(in.data(), O_CLOEXEC) != 0 || pipe2(out.data(), O_CLOEXEC) != 0 || !errorFile) {
    throw std::runtime_error("no pipes");
  }
  const Descriptor theirInput(in[0]);
  const Descriptor theirOutput(out[1]);
  input = Descriptor(in[1]);
  outputEnd = Descriptor(out[0]);
  process = fork();
  if (process == 0) {
    dup2(in[0], STDIN_FILENO);
    dup2(out[1], STDOUT_FILENO);
    dup2(errorFile.get(), STDERR_FILENO);
    signal(SIGPIPE, SIG_DFL);
    execvp("env", pointers.data());
    _exit(127);
  }
}

Program::~Program() {
  if (process > 0) {
    kill(process, SIGKILL);
    waitpid(process, nullptr, 0);
  }
}

void Program::write(const std::string& text) const {
  kst::support::writeFully(input.get(), text.data(), text.size());
}

/// Waits for some output; false when it has ended.
bool Program::readSome() {
  pollfd end{outputEnd.get(), POLLIN, 0};
  if (poll(&end, 1, 30'000) <= 0) {
    ADD_FAILURE() << "nothing more within 30 s after: " << output;
    return false;
  }
  std::array<char, 65536> buffer;
  const ssize_t count = read(end.fd, buffer.data(), buffer.size());
  output.append(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
  return count > 0;
}

std::string Program::readUntil(const std::string& text) {
  while (output.find(text) == std::string::npos) {
    if (!readSome()) {
      ADD_FAILURE() << "no '" << text << "' in: " << output;
      return output;
    }
  }
  std::string taken = output.substr(0, output.find(text) + text.size());
  output.erase(0, taken.size());
  return taken;
}

int Program::finish() {
  input.close();
  while (readSome()) {
  }
  int status = 0;
  waitpid(process, &status, 0);
  process = -1;
  errors = readFile("/proc/self/fd/" + std::to_string(errorFile.get()));
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

pid_t Program::child(const std::string& name) const {
  const std::string id = std::to_string(process);
  std::ifstream children("/proc/" + id + "/task/" + id + "/children");
  for (pid_t child = 0; children >> child;) {
    if (readFile("/proc/" + std::to_string(child) + "/comm") == name + "\n") {
      return child;
    }
  }
  return -1;
}

Finished runProgram(const Words& args, const Variables& environment, const std::string& input) {
  Program program(args, environment);
  program.write(input);
  const int status = program.finish();
  return {status, program.output, program.errors};
}
