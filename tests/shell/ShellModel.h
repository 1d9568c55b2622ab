#pragma once

#include <iterator>
#include <list>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

using Words = std::list<std::string>;

/// A node of a command tree.
struct NodePlan {
  std::string name;
  std::vector<std::string> keys;  // what its parent registers it under; behind the first: aliases
  std::map<std::string, bool> options;  // and what they return
  std::vector<NodePlan> children;       // in the order of their registration
  std::set<std::string> refused;
};

/// A run of the shell, with what it is given. No words behind the program's: the input is read.
struct ShellCase {
  NodePlan root;
  Words args;
  std::string input;
};

/// Stands in the output for what happens at that path, help included.
inline std::string mark(const std::string& path, const std::string& event,
                        const Words& words = {}) {
  std::string text = "[" + path + " " + event + " ";
  for (const std::string& word : words) {
    text += std::to_string(word.size()) + ":" + word + " ";
  }
  return text + "]";
}

/// Names of children come before aliases; of each the last one counts.
inline const NodePlan* childOf(const NodePlan& node, const std::string& key) {
  const NodePlan* named = nullptr;
  const NodePlan* alias = nullptr;
  for (const NodePlan& child : node.children) {
    for (const std::string& name : child.keys) {
      if (name == key) {
        (&name == &child.keys.front() ? named : alias) = &child;
      }
    }
  }
  return named != nullptr ? named : alias;
}

using Place = std::vector<const NodePlan*>;  // the nodes from the root to the one that is meant

inline std::string pathOf(const Place& place) {
  std::string path;
  for (const NodePlan* const node : place) {
    path += "/" + node->name;
  }
  return path;
}

inline Words wordsOf(const std::string& text, char separator) {
  const std::string separators = std::string(" \t\n\v\f\r") + separator;
  Words words;
  std::string word;
  for (const char byte : text + separator) {
    if (separators.find(byte) == std::string::npos) {
      word += byte;
    } else if (!word.empty()) {
      words.push_back(std::exchange(word, ""));
    }
  }
  return words;
}

class ShellModel {
 public:
  explicit ShellModel(const ShellCase& toRun)
      : shellCase(toRun), isInteractive(toRun.args.size() < 2), prompt{&toRun.root} {}

  std::string run() {
    if (!isInteractive) {
      execute({std::next(shellCase.args.begin()), shellCase.args.end()});
    }
    std::istringstream input(shellCase.input);
    for (std::string line; isInteractive && !hasQuit; execute(wordsOf(line, ' '))) {
      text.append("(").append(pathOf(prompt)).append(")>> ");
      if (!std::getline(input, line)) {
        return text + mark("", "false");
      }
    }
    return text + mark("", hasFailed ? "false" : "true");
  }

 private:
  /// The first command that fails, or quits, is the last.
  void execute(Words words) {
    words.emplace_back("--");
    hasFailed = false;
    Words command;
    for (const std::string& word : words) {
      if (word != "--") {
        command.push_back(word);
      } else if (!command.empty() && !hasFailed && !hasQuit) {
        hasFailed = !succeeds(std::exchange(command, {}));
      }
    }
  }

  bool succeeds(const Words& command) {
    Place place = prompt;
    for (auto at = command.begin(); at != command.end(); ++at) {
      const NodePlan& node = *place.back();
      const Words rest(std::next(at), command.end());
      if (*at == "cd") {
        return changeTo(place, rest);
      }
      const bool isOption = node.options.contains(*at);
      if (isOption || childOf(node, *at) != nullptr) {
        text += mark(pathOf(place), "asked", {*at});
        if (node.refused.contains(*at)) {
          return false;
        }
        if (isOption) {
          text += mark(pathOf(place), "runs " + *at, rest);
          return node.options.at(*at);
        }
        place.push_back(childOf(node, *at));
        continue;
      }
      if (*at == "help" && rest.empty()) {
        return helps(place);
      }
      if (command.size() == 1 && *at == "back") {
        if (isInteractive && prompt.size() > 1) {
          prompt.pop_back();
        }
        return true;
      }
      if (command.size() == 1 && (*at == "quit" || *at == "exit")) {
        return hasQuit = true;
      }
      text += "\nInvalid command option '\033[31m" + *at + "\033[39m'";
      return !helps(place);
    }
    return !helps(place);
  }

  bool helps(const Place& place) {
    text += mark(pathOf(place), "helps");
    return true;
  }

  bool changeTo(Place place, const Words& words) {
    bool isFound = words.size() == 1;
    for (const std::string& part : isFound ? wordsOf(words.front(), '/') : Words()) {
      if (const NodePlan* const child = childOf(*place.back(), part); child != nullptr) {
        place.push_back(child);
      } else if (part != "..") {
        isFound = false;
        break;
      } else if (place.size() > 1) {
        place.pop_back();
      }
    }
    if (!isFound) {
      helps(place);
    } else if (isInteractive) {
      prompt = place;
    }
    return isFound;
  }

  const ShellCase& shellCase;
  const bool isInteractive;
  Place prompt;  // of a run that has none: the root
  std::string text;
  bool hasFailed = false;  // the last line, or all that was given
  bool hasQuit = false;
};

/// What the shell has to do: its rules once more, written for reading alone, sharing no code with
/// it. The text is standard output with the marks in it; the last one is the result of the run.
inline std::string expectedRun(const ShellCase& shellCase) { return ShellModel(shellCase).run(); }
