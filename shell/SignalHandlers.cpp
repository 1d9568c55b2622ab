#include "shell/SignalHandlers.h"

#include <csignal>

std::map<int, std::deque<std::function<void(int)>>> gSignalHandlers;

void registerSignalHandler(int signal, const std::function<void(int)>& handler) {
  if (!handler) {
    return;
  }
  if (!gSignalHandlers.contains(signal)) {
    std::signal(signal, dispatchSignal);
  }
  gSignalHandlers[signal].push_back(handler);
}

void dispatchSignal(int signal) {
  const auto registered = gSignalHandlers.find(signal);
  if (registered == gSignalHandlers.end()) {
    return;
  }
  // No copy, which would allocate: a list that grows meanwhile leaves its elements where they are.
  const std::deque<std::function<void(int)>>& handlers = registered->second;
  const std::size_t count = handlers.size();
  for (std::size_t i = 0; i < count; ++i) {
    handlers[i](signal);
  }
}
