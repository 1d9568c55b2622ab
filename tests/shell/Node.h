#pragma once

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include "shell/CommandBase.h"

/// A node that a test fills from outside, and that refuses what it is told to.
class Node : public CommandBase {
 public:
  using Fill = std::function<void(Node& node)>;

  static std::shared_ptr<Node> create(
      const std::string& nodeName, const std::weak_ptr<CommandBase>& parentNode,
      Fill toFill = [](Node&) {}) {
    std::shared_ptr<Node> node(new Node(nodeName, parentNode, std::move(toFill)));
    node->initialize();
    return node;
  }

  void addChild(
      const std::string& childName, Fill toFill = [](Node&) {}) {
    addSubCommand(childName, create(childName, weak_from_this(), std::move(toFill)));
  }

  using CommandBase::addOption;
  using CommandBase::addSubCommand;

  bool isOptionAllowed(const std::string& word) override { return !refused.contains(word); }

  std::set<std::string> refused;

 protected:
  void registerOptions() override { fill(*this); }

 private:
  Node(const std::string& nodeName, const std::weak_ptr<CommandBase>& parentNode, Fill toFill)
      : CommandBase(nodeName, parentNode), fill(std::move(toFill)) {}

  const Fill fill;
};
