#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include "shell/CommandShell.h"
#include "tests/shell/ShellModel.h"

class ShellOverTree : public CommandShell {
 public:
  explicit ShellOverTree(std::shared_ptr<CommandBase> rootNode) : root(std::move(rootNode)) {}

 protected:
  std::shared_ptr<CommandBase> createRootCommand() override { return root; }

 private:
  const std::shared_ptr<CommandBase> root;
};

/// A tree and what to do with it, read from any bytes; the last part of them may be the input as it
/// stands.
ShellCase shellCaseFrom(std::span<const std::uint8_t> data);

/// Runs the shell, on this thread and with the standard streams. What it did and what it had to do,
/// when they differ.
std::optional<std::string> disagreementOn(const ShellCase& shellCase);
