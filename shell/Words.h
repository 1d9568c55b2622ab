#pragma once

#include <list>
#include <string>
#include <vector>

/// The words of a line: its longest runs of bytes that are not white space of ASCII. There is no
/// quoting.
std::list<std::string> splitWords(const std::string& line);

/// The commands that the words form: split at each word "--"; a command without words is dropped.
std::vector<std::list<std::string>> splitCommands(std::list<std::string> words);

/// The words of the text with `delimiter` taken for white space too.
std::vector<std::string> split(std::string text, char delimiter);
