#pragma once

#include <list>
#include <memory>
#include <string>
#include <vector>

#include "shell/CommandBase.h"

/// Resolves words against a command tree and runs what they name: the words of an argument list
/// (one-shot), or line by line what standard input holds (interactive). Writes to standard output.
/// Belongs to the thread that calls `run`.
class CommandShell {
 public:
  CommandShell() = default;
  CommandShell(const CommandShell&) = delete;
  CommandShell& operator=(const CommandShell&) = delete;
  virtual ~CommandShell();

  /// Builds the tree and executes commands until the arguments are used up, or, when there are none
  /// behind the program's name, until "quit", "exit" or the end of input. True after "quit", "exit"
  /// or arguments that all succeeded. Called once. An exception thrown by an option handler leaves
  /// it.
  bool run(std::list<std::string> args);

  /// The words of a line: its longest runs of bytes that are not white space of ASCII. There is no
  /// quoting.
  static std::list<std::string> splitWords(const std::string& line);

  /// The commands that the words form: split at each word "--"; a command without words is dropped.
  static std::vector<std::list<std::string>> splitCommands(std::list<std::string> words);

  /// The words of the text with `delimiter` taken for white space too.
  static std::vector<std::string> split(std::string text, char delimiter);

 protected:
  /// Builds the whole command tree and returns its root; empty when that fails. Called once, at the
  /// start of `run`.
  virtual std::shared_ptr<CommandBase> createRootCommand() = 0;

 private:
  using Words = std::list<std::string>;
  enum class Outcome { kSucceeded, kFailed, kQuit };

  Outcome executeAll(std::vector<Words> commands);
  Outcome execute(Words& command);
  void goBack();
  bool changeCommand(const Words& args);
  void printPrompt() const;

  std::shared_ptr<CommandBase> rootCommand;
  std::shared_ptr<CommandBase> workingCommand;  // where the prompt stands; empty in a one-shot run
  std::shared_ptr<CommandBase> currentCommand;  // where the next word is resolved
};
