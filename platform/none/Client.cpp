// The client of a system without services: keeps the port's promises, and says that nothing runs.

#include <cstdint>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/client/HelperClient.h"
#include "platform/client/ManagerClient.h"
#include "platform/client/TraceProperty.h"

using kst::client::EventHandler;

class ManagerClient : public std::enable_shared_from_this<ManagerClient> {
 public:
  explicit ManagerClient(TaskQueue callbackQueue) : queue(std::move(callbackQueue)) {}

  void addHandler(EventHandler handler) {
    const std::lock_guard lock(mutex);
    handlers.push_back(std::move(handler));
  }

  void setEvents(bool on) {
    const std::lock_guard lock(mutex);
    ++period;
    if (on) {
      queue.submit([weak = weak_from_this(), submittedPeriod = period] {
        if (const std::shared_ptr<ManagerClient> self = weak.lock()) {
          self->tellState(submittedPeriod);
        }
      });
    }
  }

  const TaskQueue queue;  // runs the callbacks

 private:
  void tellState(std::uint64_t submittedPeriod) {
    std::vector<EventHandler> called;
    {
      const std::lock_guard lock(mutex);
      if (submittedPeriod != period) {
        return;
      }
      called = handlers;
    }
    MessageDict payload;
    payload.set(kst::kKeyServerState, kst::kServerStateStopped);
    for (const EventHandler& handler : called) {
      handler(payload, TaskGroup());
    }
  }

  std::mutex mutex;  // guards all below
  std::vector<EventHandler> handlers;
  std::uint64_t period = 0;  // counts EventsOn and EventsOff; a state of an earlier one is not told
};

namespace kst::client {

std::shared_ptr<ManagerClient> CreateManager(const std::string& /*name*/, const TaskQueue& queue) {
  return std::make_shared<ManagerClient>(queue);
}

void RegisterEventHandler(std::shared_ptr<ManagerClient> manager, const std::string& event,
                          EventHandler handler) {
  if (event == kEventServerStateChange) {
    manager->addHandler(std::move(handler));
  }
}

void EventsOff(std::shared_ptr<ManagerClient> manager) { manager->setEvents(false); }

void EventsOn(std::shared_ptr<ManagerClient> manager) { manager->setEvents(true); }

void PerformCommand(std::shared_ptr<ManagerClient> manager, const std::string& command,
                    ReplyCallback callback, const MessageDict& request) {
  // The callback is moved all the way, never copied, so that the only copy dies on the queue.
  manager->queue.submit([command = command, request = request, callback = std::move(callback)] {
    if (command == kCommandGetTraceProperty) {
      callback({}, answerTraceProperty(request));
    } else {
      callback({kResultManagerNotRunning, "this system has no manager"}, MessageValue());
    }
  });
}

}  // namespace kst::client

namespace kst {

HelperClient::HelperClient(std::string name, LogSink logSink)
    : clientName(std::move(name)), sink(std::move(logSink)) {}

std::shared_ptr<HelperClient> HelperClient::create(const std::string& name, LogSink logSink) {
  return std::shared_ptr<HelperClient>(new HelperClient(name, std::move(logSink)));
}

CommandResult HelperClient::perform(helper::TaskID /*task*/, const std::string& command,
                                    MessageDict /*request*/, MessageDict& reply) {
  reply = MessageDict();
  CommandResult result = {kResultHelperNotRunning, "this system has no helper"};
  if (sink) {
    sink(command + ": " + result.text);
  }
  return result;
}

}  // namespace kst
