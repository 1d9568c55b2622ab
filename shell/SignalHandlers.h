#pragma once

#include <deque>
#include <functional>
#include <map>

/// The handlers by signal number. Filled while the process has one thread; no signal of a number
/// here may arrive once `exit` has begun.
extern std::map<int, std::deque<std::function<void(int)>>> gSignalHandlers;

/// Adds a handler for a signal, behind the earlier ones; the first one installs `dispatchSignal` by
/// signal(2). An empty handler is ignored. Handlers are never removed. They run in the signal's own
/// context: all limits of signal-safety(7) are theirs to keep.
void registerSignalHandler(int signal, const std::function<void(int)>& handler);

/// Calls every handler registered for the signal, in the order of registration. Handlers that these
/// add are not called this time.
void dispatchSignal(int signal);
