#include "shell/Words.h"

#include <algorithm>
#include <iterator>
#include <string_view>

std::list<std::string> splitWords(const std::string& line) {
  constexpr std::string_view kWhitespace = " \t\n\v\f\r";
  std::list<std::string> words;
  std::string::size_type end = 0;
  for (auto begin = line.find_first_not_of(kWhitespace); begin != std::string::npos;
       begin = line.find_first_not_of(kWhitespace, end)) {
    end = std::min(line.find_first_of(kWhitespace, begin), line.size());
    words.push_back(line.substr(begin, end - begin));
  }
  return words;
}

std::vector<std::list<std::string>> splitCommands(std::list<std::string> words) {
  std::vector<std::list<std::string>> commands;
  while (!words.empty()) {
    const auto separator = std::find(words.begin(), words.end(), "--");
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
