#include "tests/e2e/Program.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string_view>

#include "tests/e2e/Files.h"

using kst::support::Descriptor;

namespace {

std::string pathOf(const std::string& program) {
  const auto beside = std::filesystem::read_symlink("/proc/self/exe").parent_path() / program;
  return std::filesystem::exists(beside) ? beside.string() : program;
}

/// What a program is started with. It is made before the fork: between that and exec a child of a
/// process with threads may allocate nothing.
class Image {
 public:
  Image(const Words& args, const Variables& environment) : path(pathOf(args.front())), words(args) {
    for (char** variable = environ; *variable != nullptr; ++variable) {
      const std::string_view text = *variable;
      if (!environment.contains(std::string(text.substr(0, text.find('='))))) {
        variables.emplace_back(text);
      }
    }
    for (const auto& [name, value] : environment) {
      variables.push_back(name + "=" + value);
    }
    wordPointers = pointersTo(words);
    variablePointers = pointersTo(variables);
  }
  Image(const Image&) = delete;
  Image& operator=(const Image&) = delete;

  /// In the child.
  [[noreturn]] void become() const {
    signal(SIGPIPE, SIG_DFL);
    execvpe(path.c_str(), wordPointers.data(), variablePointers.data());
    _exit(127);
  }

 private:
  static std::vector<char*> pointersTo(Words& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts) {
      pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
  }

  const std::string path;
  Words words;
  Words variables;
  std::vector<char*> wordPointers;
  std::vector<char*> variablePointers;
};

}  // namespace

Words joined(Words first, const Words& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

Program::Program(const Words& args, const Variables& environment, Streams streams) {
  signal(SIGPIPE, SIG_IGN);
  const Image image(args, environment);
  if (streams == Streams::kTerminal) {
    int terminal = -1;
    process = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (process == 0) {
      image.become();
    }
    input = Descriptor(fcntl(terminal, F_DUPFD_CLOEXEC, 0));
    outputEnd = Descriptor(terminal);
    return;
  }
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
    image.become();
  }
}

Program::~Program() {
  if (process > 0) {
    kill(process, SIGKILL);
    waitpid(process, nullptr, 0);
  }
}

void Program::write(const std::string& text) const {
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t n = ::write(input.get(), text.data() + done, text.size() - done);
    if (n < 0) {
      return;  // the program has closed its end
    }
    done += static_cast<std::size_t>(n);
  }
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
  std::size_t found = output.find(text);
  while (found == std::string::npos) {
    if (!readSome()) {
      ADD_FAILURE() << "no '" << text << "' in: " << output;
      return output;
    }
    found = output.find(text);
  }
  std::string taken = output.substr(0, found + text.size());
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

Finished runProgram(const Words& args, const Variables& environment, const std::string& input) {
  Program program(args, environment);
  program.write(input);
  const int status = program.finish();
  return {status, program.output, program.errors};
}
