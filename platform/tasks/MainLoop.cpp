#include "platform/tasks/MainLoop.h"

#include <utility>

#include "platform/tasks/WorkList.h"

namespace {

/// Never destroyed: another thread may still post while the process exits.
WorkList& mainWork() {
  static auto& work = *new WorkList;
  return work;
}

}  // namespace

void runMainLoop() { mainWork().serve(); }

void postToMainLoop(std::function<void()> work) { mainWork().push(std::move(work)); }

void stopMainLoop() { mainWork().close(); }
