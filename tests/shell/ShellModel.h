#pragma once

#include <list>
#include <map>
#include <set>
#include <string>
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
std::string mark(const std::string& path, const std::string& event, const Words& words = {});

/// What the shell has to do: its rules once more, written for reading alone, sharing no code with
/// it. The text is standard output with the marks in it; the last one is the result of the run.
std::string expectedRun(const ShellCase& shellCase);
