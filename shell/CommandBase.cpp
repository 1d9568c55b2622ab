#include "shell/CommandBase.h"

#include <iomanip>
#include <iostream>
#include <utility>

#include "shell/Colors.h"

namespace {

constexpr int kNameWidth = 16;

}  // namespace

CommandBase::CommandBase(std::string nodeName, std::weak_ptr<CommandBase> parentNode)
    : parent(std::move(parentNode)), name(std::move(nodeName)) {}

CommandBase::~CommandBase() = default;

void CommandBase::initialize() {
  if (const std::shared_ptr<CommandBase> above = parent.lock()) {
    path = above->path;
  }
  path += "/" + name;
  registerOptions();
}

bool CommandBase::isOptionAllowed(const std::string& /*name*/) { return true; }

void CommandBase::addOption(const std::string& optionName, OptionHandler handler,
                            const std::string& helpText) {
  if (!handler) {
    return;
  }
  options[optionName] = std::move(handler);
  if (!helpText.empty()) {
    optionHelp[optionName] = helpText;
  }
}

void CommandBase::addSubCommand(const std::string& childName, std::shared_ptr<CommandBase> child) {
  subCommands[childName] = std::move(child);
}

void CommandBase::addSubCommand(const std::vector<std::string>& names,
                                const std::shared_ptr<CommandBase>& child) {
  for (std::size_t i = 0; i < names.size(); ++i) {
    (i == 0 ? subCommands : aliases)[names[i]] = child;
  }
}

bool CommandBase::hasOption(const std::string& optionName) const {
  return options.contains(optionName);
}

bool CommandBase::hasSubCommand(const std::string& childName) const {
  return subCommands.contains(childName) || aliases.contains(childName);
}

std::shared_ptr<CommandBase> CommandBase::getSubCommand(const std::string& childName) const {
  for (const auto* children : {&subCommands, &aliases}) {
    const auto child = children->find(childName);
    if (child != children->end()) {
      return child->second;
    }
  }
  return nullptr;
}

std::string CommandBase::getPath() const { return path; }
std::weak_ptr<CommandBase> CommandBase::getParent() const { return parent; }
std::map<std::string, OptionHandler> CommandBase::getOptions() const { return options; }
std::map<std::string, std::shared_ptr<CommandBase>> CommandBase::getSubCommands() const {
  return subCommands;
}

bool CommandBase::executeOption(const std::string& optionName, std::list<std::string> args) {
  const auto option = options.find(optionName);
  if (option == options.end()) {
    return false;
  }
  const TaskGroup group = TaskGroup::create();
  const bool succeeded = option->second(group, std::move(args));
  group.wait();
  return succeeded;
}

void CommandBase::printHelp() {
  std::cout << std::right << std::endl
            << "Options for command '" << terminal::kGreen << name << terminal::kDefaultColor
            << "':" << std::endl
            << std::endl;
  for (const auto& [option, handler] : options) {
    const auto help = optionHelp.find(option);
    std::cout << "\t" << std::setw(kNameWidth) << option << "  -  "
              << (help == optionHelp.end() ? "..." : help->second) << std::endl
              << std::endl;
  }
  for (const auto& [key, child] : subCommands) {
    printSubCommandHelp(child, 0);
    std::cout << std::endl;
  }
  std::cout << "\t" << std::setw(kNameWidth) << "cd"
            << "  -  <sub-command>" << std::endl;
  for (const char* const word : {"help", "back", "quit"}) {
    std::cout << "\t" << std::setw(kNameWidth) << word << std::endl;
  }
  std::cout << std::endl;
}

void CommandBase::printSubCommandHelp(const std::shared_ptr<CommandBase>& child, int depth) {
  if (!child->options.empty()) {
    std::string list;
    for (const auto& [option, handler] : child->options) {
      list += (list.empty() ? "[" : "|") + option;
    }
    list += "]";

    std::cout << "\t";
    for (int level = 0; level < depth; ++level) {
      std::cout << std::setw(kNameWidth) << "";
    }
    if (depth == 0) {
      std::cout << std::setw(kNameWidth) << child->name;
    } else {
      std::cout << "     <" << child->name << ">";
    }
    std::cout << "  -  " << list << std::endl;
  }
  for (const auto& [key, grandchild] : child->subCommands) {
    printSubCommandHelp(grandchild, depth + 1);
  }
}
