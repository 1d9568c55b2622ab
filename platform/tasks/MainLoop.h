#pragma once

#include <functional>

// The event loop of the main thread; a process has one.

/// Serves posted work on the calling thread, one item at a time and in order, and sleeps while
/// there is none. Returns only after `stopMainLoop`. REQUIRES: called on the main thread.
void runMainLoop();

/// Has `work` run in `runMainLoop`. Never blocks; callable from any thread for as long as the
/// process lives.
void postToMainLoop(std::function<void()> work);

/// Makes `runMainLoop` return, for good, once it has served what was posted before. Callable from
/// any thread.
void stopMainLoop();
