#include "shell/SignalHandlers.h"

#include <csignal>
#include <utility>

std::map<int, std::deque<std::function<void(int)>>> gSignalHandlers;

void registerSignalHandler(int signal, const std::function<void(int)>& handler) {
  if (!handler) {
    return;
  }
  if (!gSignalHandlers.contains(signal)) {
    std::signal(signal, dispatchSignal);
  }
  // A dispatch that is under way walks a copy, so it never sees a list that is being changed.
  std::deque<std::function<void(int)>> handlers = gSignalHandlers[signal];
  handlers.push_back(handler);
  gSignalHandlers[signal] = std::move(handlers);
}

void dispatchSignal(int signal) {
  const auto registered = gSignalHandlers.find(signal);
  if (registered == gSignalHandlers.end()) {
    return;
  }
  const std::deque<std::function<void(int)>> handlers = registered->second;
  for (const std::function<void(int)>& handler : handlers) {
    handler(signal);
  }
}
