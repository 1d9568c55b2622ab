#pragma once

#include <string>

/// Whether a process whose executable has exactly this name runs on the machine, whoever owns it. A
/// zombie does not run. False also when the process table cannot be read. Callable from any thread.
bool isProcessRunning(const std::string& name);
