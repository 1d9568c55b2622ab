#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <iostream>
#include <memory>
#include <optional>
#include <span>
#include <sstream>
#include <string>
#include <utility>

#include "shell/CommandShell.h"
#include "tests/fakes/Streams.h"
#include "tests/shell/ShellModel.h"

class ShellOverTree : public CommandShell {
 public:
  explicit ShellOverTree(std::shared_ptr<CommandBase> rootNode) : root(std::move(rootNode)) {}

 protected:
  std::shared_ptr<CommandBase> createRootCommand() override { return root; }

 private:
  const std::shared_ptr<CommandBase> root;
};

/// Takes a tree and what to do with it from any bytes, of which the last part may be the input as
/// it stands; behind their end are zeros, which make the least of everything.
class ShellCaseDecoder {
 public:
  explicit ShellCaseDecoder(std::span<const std::uint8_t> data) : left(data) {}

  ShellCase decode() {
    const unsigned kind = below(5);
    ShellCase made{node(3), {name()}, ""};
    if (kind == 0) {
      made.input = {left.begin(), left.end()};
    } else if (kind < 3) {
      made.args.splice(made.args.end(), words(1 + below(6)));
    } else {
      for (unsigned phrases = below(16); phrases > 0; --phrases) {
        for (const std::string& word : words(1)) {
          made.input += word + (below(8) == 0 ? pick(kOddSeparators) : " ");
        }
        made.input += below(4) == 0 ? "" : "\n";
      }
    }
    return made;
  }

 private:
  static constexpr std::array kNames{"a",  "b",    "c",    "a",    "b",       "d",    "a/b",
                                     "cd", "help", "back", "quit", "..",      "exit", "..",
                                     "--", "cde",  "a b",  "",     "\xc3\xa9"};
  static constexpr std::array kOddSeparators{"\n",   " -- ", "\r\n", " --\t", "\v",
                                             "\f",   "\x1c", "\x1f", "\x7f",  "\x85",
                                             "\xa0", "\n\n", "",     "/",     " \n "};
  /// K stands for a name, mostly one that the tree has.
  static constexpr std::array kPhrases{"K",  "K K",  "K/K",    "cd /K/K", "cd K//../K",
                                       "cd", "K",    "K back", "cd K/K",  "cd K/K -- back --",
                                       "--", "back", "K help", "cd ..",   "cd K\x1f/K/./K/"};

  unsigned below(std::size_t limit) {
    const unsigned byte = left.empty() ? 0 : left.front();
    left = left.empty() ? left : left.subspan(1);
    return byte % static_cast<unsigned>(limit);
  }

  std::string pick(const auto& texts) { return texts[below(texts.size())]; }

  std::string name() { return pick(kNames); }

  NodePlan node(unsigned depth) {
    NodePlan made;
    made.name = name();
    for (unsigned keys = (1 + below(6)) % 4; keys > 0; --keys) {
      made.keys.push_back(name());
      used.push_back(made.keys.back());
    }
    for (unsigned options = below(5); options > 0; --options) {
      made.options[name()] = below(4) > 0;
    }
    for (unsigned children = depth == 0 ? 0 : below(4); children > 0; --children) {
      made.children.push_back(node(depth - 1));
    }
    for (unsigned refused = below(8); refused > 5; --refused) {
      made.refused.insert(name());
    }
    return made;
  }

  Words words(unsigned phrases) {
    Words made;
    for (; phrases > 0; --phrases) {
      std::istringstream phrase(pick(kPhrases));
      for (std::string word; phrase >> word;) {
        made.emplace_back();
        for (const char letter : word) {
          made.back() += letter == 'K' ? known() : std::string(1, letter);
        }
      }
    }
    return made;
  }

  std::string known() { return below(4) == 0 || used.empty() ? name() : pick(used); }

  std::span<const std::uint8_t> left;
  std::vector<std::string> used;
};

class PlannedNode : public CommandBase {
 public:
  PlannedNode(const NodePlan& nodePlan, const std::weak_ptr<CommandBase>& parentNode)
      : CommandBase(nodePlan.name, parentNode), plan(nodePlan) {}

  static std::shared_ptr<CommandBase> create(const NodePlan& nodePlan,
                                             const std::weak_ptr<CommandBase>& parentNode) {
    const auto node = std::make_shared<PlannedNode>(nodePlan, parentNode);
    node->initialize();
    return node;
  }

  void printHelp() override { std::cout << mark(getPath(), "helps"); }

  bool isOptionAllowed(const std::string& word) override {
    std::cout << mark(getPath(), "asked", {word});
    return !plan.refused.contains(word);
  }

 protected:
  void registerOptions() override {
    for (const auto& option : plan.options) {
      const auto handler = [path = getPath(), &option](const TaskGroup&, const Words& words) {
        std::cout << mark(path, "runs " + option.first, words);
        return option.second;
      };
      addOption(option.first, handler, "");
    }
    for (const NodePlan& child : plan.children) {
      addSubCommand(child.keys, create(child, weak_from_this()));
    }
  }

 private:
  const NodePlan& plan;
};

/// Runs the shell, on this thread and with the standard streams. What it did and what it had to do,
/// when they differ.
inline std::optional<std::string> disagreementOn(std::span<const std::uint8_t> data) {
  const ShellCase shellCase = ShellCaseDecoder(data).decode();
  const std::string expected = expectedRun(shellCase);
  const ScriptedInput input(std::cin, shellCase.input);
  const CapturedOutput output(std::cout);
  const bool result = ShellOverTree(PlannedNode::create(shellCase.root, {})).run(shellCase.args);
  // A line feed within a word is none of the shell's line ends.
  const bool hasRawLines =
      std::any_of(shellCase.args.begin(), shellCase.args.end(),
                  [](const std::string& word) { return word.find('\n') != std::string::npos; });
  const std::string actual = output.text() + mark("", result ? "true" : "false") +
                             (hasRawLines || output.isFlushedByLine() ? "" : "[not flushed]");
  return actual == expected ? std::nullopt : std::optional(actual + "\n\nexpected:\n" + expected);
}
