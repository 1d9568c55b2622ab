#pragma once

#include <atomic>

/// Whether the last server-state event reported the started state; false before the first one.
/// Written on the tool's queue alone; readers may see a value that is a moment old.
extern std::atomic<bool> gServerRunning;

/// The value of gServerRunning.
bool isServerRunning();
