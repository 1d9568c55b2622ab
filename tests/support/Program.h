#pragma once

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
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/Descriptor.h"
#include "tests/support/Files.h"

using Words = std::vector<std::string>;
using Variables = std::map<std::string, std::string>;

/// `first` and, behind it, `second`.
inline Words joined(Words first, const Words& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

/// A running program, with pipes to its input and output; killed if it runs when this goes.
class Program {
 public:
  /// Starts `args[0]`, looked for beside this test, or else in PATH, with `environment` on top of
  /// the test's own.
  explicit Program(const Words& args, const Variables& environment = {}) {
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
    std::vector<char*> pointers(words.size() + 1);
    std::transform(words.begin(), words.end(), pointers.begin(),
                   [](auto& word) { return &word[0]; });
    std::array<int, 2> in{};
    std::array<int, 2> out{};
    errorFile = kst::support::Descriptor(memfd_create("errors", MFD_CLOEXEC));
    if (pipe2(in.data(), O_CLOEXEC) != 0 || pipe2(out.data(), O_CLOEXEC) != 0 || !errorFile) {
      throw std::runtime_error("no pipes");
    }
    const kst::support::Descriptor theirInput(in[0]);
    const kst::support::Descriptor theirOutput(out[1]);
    input = kst::support::Descriptor(in[1]);
    outputEnd = kst::support::Descriptor(out[0]);
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
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;
  ~Program() {
    if (process > 0) {
      kill(process, SIGKILL);
      waitpid(process, nullptr, 0);
    }
  }

  void write(const std::string& text) const {
    kst::support::writeFully(input.get(), text.data(), text.size());
  }

  /// Reads standard output until `text` is in what has not been taken yet; takes and returns all up
  /// to its end. Fails the test, and returns what there is, when the output ends first or 30 s
  /// pass.
  std::string readUntil(const std::string& text) {
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

  /// Closes the input, reads standard output to its end, and returns the exit status, or 128 and
  /// the signal.
  int finish() {
    input.close();
    while (readSome()) {
    }
    int status = 0;
    waitpid(process, &status, 0);
    process = -1;
    errors = readFile("/proc/self/fd/" + std::to_string(errorFile.get()));
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

  [[nodiscard]] pid_t id() const { return process; }

  /// Its child process of that name; -1 when there is none that runs.
  [[nodiscard]] pid_t child(const std::string& name) const {
    const std::string id = std::to_string(process);
    std::ifstream children("/proc/" + id + "/task/" + id + "/children");
    for (pid_t child = 0; children >> child;) {
      if (readFile("/proc/" + std::to_string(child) + "/comm") == name + "\n") {
        return child;
      }
    }
    return -1;
  }

  std::string output;  ///< what has been read of standard output and not been taken
  std::string errors;  ///< standard error, once the program has finished

 private:
  /// Waits for some output; false when it has ended.
  bool readSome() {
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

  pid_t process = -1;
  kst::support::Descriptor input;
  kst::support::Descriptor outputEnd;
  kst::support::Descriptor errorFile;
};

/// How a program ended that got `input` and then the end of it.
struct Finished {
  int status;
  std::string output;
  std::string errors;
};

inline Finished runProgram(const Words& args, const Variables& environment = {},
                           const std::string& input = "") {
  Program program(args, environment);
  program.write(input);
  const int status = program.finish();
  return {status, program.output, program.errors};
}
