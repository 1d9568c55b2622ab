#include "shell/Words.h"

#include <algorithm>
#include <iterator>
#include <string_view>

namespace {

constexpr std::string_view kSeparator = "--";

/// White space of ASCII, whatever the locale.
bool isWhitespace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

}  // namespace

std::list<std::string> splitWords(const std::string& line) {
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

std::vector<std::list<std::string>> splitCommands(std::list<std::string> words) {
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

std::vector<std::string> split(std::string text, char delimiter) {
  std::replace(text.begin(), text.end(), delimiter, ' ');
  std::list<std::string> words = splitWords(text);
  return {std::make_move_iterator(words.begin()), std::make_move_iterator(words.end())};
}
