#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

#include "support/Descriptor.h"

using Words = std::vector<std::string>;
using Variables = std::map<std::string, std::string>;

/// `first` and, behind it, `second`.
Words joined(Words first, const Words& second);

/// A running program, with pipes to its input and output.
class Program {
 public:
  /// Starts `args[0]`, looked for beside this test, or else in PATH, with `environment` on top of
  /// the test's own.
  explicit Program(const Words& args, const Variables& environment = {});
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  /// Kills the program if it still runs.
  ~Program();

  void write(const std::string& text) const;

  /// Reads standard output until `text` is in what has not been taken yet; takes and returns all up
  /// to its end. Fails the test, and returns what there is, when the output ends first or 30 s
  /// pass.
  std::string readUntil(const std::string& text);

  /// Closes the input, reads standard output to its end, and returns the exit status, or 128 and
  /// the signal.
  int finish();

  [[nodiscard]] pid_t id() const { return process; }

  /// Its child process of that name; -1 when there is none that runs.
  [[nodiscard]] pid_t child(const std::string& name) const;

  std::string output;  ///< what has been read of standard output and not been taken
  std::string errors;  ///< standard error, once the program has finished

 private:
  bool readSome();

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

Finished runProgram(const Words& args, const Variables& environment = {},
                    const std::string& input = "");
