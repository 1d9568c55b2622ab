#pragma once

#include <memory>

#include "shell/CommandShell.h"

/// The tool's shell: connects to the manager service and builds the tool's command tree.
class KSTShell : public CommandShell {
 protected:
  /// Takes about half a second, which the service has to report its state. Never returns an empty
  /// pointer.
  std::shared_ptr<CommandBase> createRootCommand() override;
};

/// The version of the service that this tool belongs to.
const char* kestraneVersion();

/// The shell thread: runs a KSTShell on the argument list that `args` points to, then ends the
/// process with status 0 or 1.
[[noreturn]] void* shellThreadMain(void* args);
