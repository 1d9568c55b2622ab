#pragma once

#include <optional>
#include <string>

/// Answers `--help` or `--version` among options that have a value each and end with "--". Prints
/// to standard output and returns the exit status: 0, or 1, after a line on standard error, where
/// the output could not be written. Nothing if neither is asked for.
std::optional<int> answerInformation(int argc, const char* const* argv, const std::string& program,
                                     const std::string& help);

/// What a daemon's command line asks for: to serve below `root`, or to end with `exitStatus`.
struct DaemonOptions {
  std::optional<std::string> root;  ///< of the device's file tree
  int exitStatus = 0;
};

/// Reads `[--root DIR | --help | --version]`. Without a root all has been said: the answer, or
/// usage on standard error. `purpose` is the help's line about the program.
DaemonOptions readDaemonOptions(int argc, const char* const* argv, const std::string& program,
                                const std::string& purpose);
