#include "shell/CommandShell.h"

#include <algorithm>
#include <iostream>
#include <iterator>
#include <string_view>
#include <utility>

#include "shell/Colors.h"

namespace {

constexpr std::string_view kSeparator = "--";

/// White space of ASCII, whatever the locale.
bool isWhitespace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

void printUnknownWord(const std::string& word) {
  // The help that follows ends the message's line.
  std::cout << std::endl
            << "Invalid command option '" << terminal::kRed << word << terminal::kDefaultColor
            << "'";
}

}  // namespace

CommandShell::~CommandShell() = default;

bool CommandShell::run(std::list<std::string> args) {
  rootCommand = createRootCommand();
  if (!rootCommand) {
    return false;
  }
  currentCommand = rootCommand;
  if (!args.empty()) {
    args.pop_front();  // the program's own name
  }
  if (!args.empty()) {
    return executeAll(splitCommands(std::move(args))) != Outcome::kFailed;
  }
  workingCommand = rootCommand;
  printPrompt();
  for (std::string line; std::getline(std::cin, line); printPrompt()) {
    if (executeAll(splitCommands(splitWords(line))) == Outcome::kQuit) {
      return true;
    }
  }
  return false;
}

/// Executes commands up to the first one that fails or quits.
CommandShell::Outcome CommandShell::executeAll(std::vector<Words> commands) {
  for (Words& command : commands) {
    const Outcome outcome = execute(command);
    currentCommand = workingCommand ? workingCommand : rootCommand;
    if (outcome != Outcome::kSucceeded) {
      return outcome;
    }
  }
  return Outcome::kSucceeded;
}

CommandShell::Outcome CommandShell::execute(Words& command) {
  const auto result = [](bool succeeded) {
    return succeeded ? Outcome::kSucceeded : Outcome::kFailed;
  };
  const bool isSingleWord = command.size() == 1;
  for (;;) {
    const std::string word = std::move(command.front());
    command.pop_front();

    if (word == "cd") {
      const bool changed = changeCommand(command);
      if (!changed) {
        currentCommand->printHelp();
      }
      return result(changed);
    }
    if (currentCommand->hasOption(word)) {
      return result(currentCommand->isOptionAllowed(word) &&
                    currentCommand->executeOption(word, std::move(command)));
    }
    if (std::shared_ptr<CommandBase> child = currentCommand->getSubCommand(word)) {
      if (!currentCommand->isOptionAllowed(word)) {
        return Outcome::kFailed;
      }
      currentCommand = std::move(child);
      if (command.empty()) {
        currentCommand->printHelp();
        return Outcome::kFailed;
      }
      continue;
    }
    if (word == "help" && command.empty()) {
      currentCommand->printHelp();
      return Outcome::kSucceeded;
    }
    if (isSingleWord && word == "back") {
      goBack();
      return Outcome::kSucceeded;
    }
    if (isSingleWord && (word == "quit" || word == "exit")) {
      return Outcome::kQuit;
    }
    printUnknownWord(word);
    currentCommand->printHelp();
    return Outcome::kFailed;
  }
}

void CommandShell::goBack() {
  if (!workingCommand) {
    return;
  }
  if (std::shared_ptr<CommandBase> parent = workingCommand->getParent().lock()) {
    workingCommand = std::move(parent);
  }
}

/// Follows a path from the current node. A path that cannot be followed to its end leaves the
/// current node where it stopped.
bool CommandShell::changeCommand(const Words& args) {
  if (args.size() != 1) {
    return false;
  }
  for (const std::string& component : split(args.front(), '/')) {
    if (std::shared_ptr<CommandBase> child = currentCommand->getSubCommand(component)) {
      currentCommand = std::move(child);
    } else if (component == "..") {
      if (std::shared_ptr<CommandBase> parent = currentCommand->getParent().lock()) {
        currentCommand = std::move(parent);
      }
    } else {
      return false;
    }
  }
  if (workingCommand) {
    workingCommand = currentCommand;
  }
  return true;
}

void CommandShell::printPrompt() const {
  std::string prompt = "(";
  prompt += workingCommand->getPath();
  prompt += ")>> ";
  std::cout << prompt;  // in one piece
}

std::list<std::string> CommandShell::splitWords(const std::string& line) {
  std::list<std::string> words;
  for (auto begin = line.begin(), end = begin;; begin = end) {
    begin = std::find_if_not(begin, line.end(), isWhitespace);
    if (begin == line.end()) {
      return words;
    }
    end = std::find_if(begin, line.end(), isWhitespace);
    words.emplace_back(begin, end);
  }
}

std::vector<std::list<std::string>> CommandShell::splitCommands(std::list<std::string> words) {
  std::vector<std::list<std::string>> commands;
  while (!words.empty()) {
    const auto separator = std::find(words.begin(), words.end(), kSeparator);
    std::list<std::string> command;
    command.splice(command.end(), words, words.begin(), separator);
    if (!command.empty()) {
      commands.push_back(std::move(command));
    }
    if (!words.empty()) {
      words.pop_front();
    }
  }
  return commands;
}

std::vector<std::string> CommandShell::split(std::string text, char delimiter) {
  std::replace(text.begin(), text.end(), delimiter, ' ');
  std::list<std::string> words = splitWords(text);
  return {std::make_move_iterator(words.begin()), std::make_move_iterator(words.end())};
}
