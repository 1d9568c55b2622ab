#pragma once

#include <deque>
#include <functional>
#include <map>

/// The handlers by signal number. No signal of a number here may arrive once `exit` has begun.
extern std::map<int, std::deque<std::function<void(int)>>> gSignalHandlers;

/// Adds a handler for a signal, behind the earlier ones; the first one installs `dispatchSignal` by
/// signal(2). An empty handler is ignored. Handlers are never removed. REQUIRES: no signal that has
/// handlers arrives meanwhile. A handler may make the call too, but it allocates: the signal must
/// not have interrupted an allocation.
void registerSignalHandler(int signal, const std::function<void(int)>& handler);

/// Calls every handler registered for the signal, in the order of registration. Handlers that these
/// add are not called this time. Allocates nothing and takes no lock; a handler runs in the
/// signal's own context, and all other limits of signal-safety(7) are its own to keep.
void dispatchSignal(int signal);
