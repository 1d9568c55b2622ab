#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

/// A running program, with pipes to its standard streams, or with one terminal for all of them.
class Program {
 public:
  enum class Streams { kPipes, kTerminal };

  /// Starts `args[0]`, looked for beside this test, or else in PATH, with `environment` on top of
  /// the test's own.
  explicit Program(const std::vector<std::string>& args,
                   const std::map<std::string, std::string>& environment = {},
                   Streams streams = Streams::kPipes);
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  /// Kills the program if it still runs.
  ~Program();

  void write(const std::string& text) const;
  void closeInput();

  /// Reads standard output until `text` is in what has not been taken yet; takes and returns all up
  /// to its end. Fails the test, and returns what there is, when the output ends first or 30 s
  /// pass.
  std::string readUntil(const std::string& text);

  /// Closes the input, reads both outputs to their end, and returns the exit status, or 128 and the
  /// signal.
  int finish();

  [[nodiscard]] pid_t id() const { return process; }

  /// Its child process of that name; -1 when there is none that runs.
  [[nodiscard]] pid_t child(const std::string& name) const;

  std::string output;  ///< what has been read of standard output and not been taken
  std::string errors;  ///< what has been read of standard error

 private:
  bool readSome();

  pid_t process = -1;
  int input = -1;
  int outputEnd = -1;
  int errorEnd = -1;
};

/// How a program ended that got `input` and then the end of it.
struct Finished {
  int status;
  std::string output;
  std::string errors;
};

Finished runProgram(const std::vector<std::string>& args,
                    const std::map<std::string, std::string>& environment = {},
                    const std::string& input = "");
