#pragma once

#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/tasks/TaskGroup.h"

/// What an option does. It gets the group of this one run and the words behind the option's name;
/// true means success. Work that goes on after it has returned must hold `group` until it is done.
using OptionHandler = std::function<bool(TaskGroup group, std::list<std::string> args)>;

/// A node of the command tree: options to run and sub-commands to enter. Parents own their
/// children.
///
/// Every concrete class has a static `create` that makes the node, puts it under a shared pointer
/// and then calls `initialize`; a node is never used otherwise. The tree is built and used on one
/// thread, and does not change once it is built.
class CommandBase : public std::enable_shared_from_this<CommandBase> {
 public:
  CommandBase(const CommandBase&) = delete;
  CommandBase& operator=(const CommandBase&) = delete;
  virtual ~CommandBase();

  /// Computes the path and then has `registerOptions` fill the node. Called once, by `create`.
  virtual void initialize();

  /// Writes the node's help to standard output.
  virtual void printHelp();

  /// Whether the option or sub-command of this name may be used now. An override that says no tells
  /// the user why.
  virtual bool isOptionAllowed(const std::string& name);

  [[nodiscard]] bool hasOption(const std::string& name) const;

  /// Whether a child can be reached under this name, as a sub-command or as an alias.
  [[nodiscard]] bool hasSubCommand(const std::string& name) const;

  /// The child of this name; empty when there is none.
  [[nodiscard]] std::shared_ptr<CommandBase> getSubCommand(const std::string& name) const;

  /// "/" and the names of all nodes from the root to this one, joined by "/".
  [[nodiscard]] std::string getPath() const;

  /// The node above; empty for the root.
  [[nodiscard]] std::weak_ptr<CommandBase> getParent() const;

  [[nodiscard]] std::map<std::string, OptionHandler> getOptions() const;
  [[nodiscard]] std::map<std::string, std::shared_ptr<CommandBase>> getSubCommands() const;

  /// Runs an option on the calling thread, then blocks until all work that joined the run's group
  /// has ended. Returns the handler's result; false for a name that is no option.
  bool executeOption(const std::string& name, std::list<std::string> args);

 protected:
  CommandBase(std::string nodeName, std::weak_ptr<CommandBase> parentNode);

  /// Fills the node with its options and sub-commands. `shared_from_this` works here.
  virtual void registerOptions() = 0;

  /// Sets what the option `optionName` does, in place of anything earlier. An empty handler is
  /// ignored as a whole; an empty help text leaves an earlier one in place.
  void addOption(const std::string& optionName, OptionHandler handler, const std::string& helpText);

  /// Puts a child, which must not be empty, under this node, in place of an earlier one of that
  /// name.
  void addSubCommand(const std::string& childName, std::shared_ptr<CommandBase> child);

  /// Puts a child under its first name; the further names become aliases, which help does not list.
  void addSubCommand(const std::vector<std::string>& names,
                     const std::shared_ptr<CommandBase>& child);

 private:
  void printSubCommandHelp(const std::shared_ptr<CommandBase>& child, int depth);

  std::weak_ptr<CommandBase> parent;
  std::string name;
  std::string path;  // empty until `initialize`
  std::map<std::string, OptionHandler> options;
  std::map<std::string, std::string> optionHelp;
  std::map<std::string, std::shared_ptr<CommandBase>> subCommands;
  std::map<std::string, std::shared_ptr<CommandBase>> aliases;
};
