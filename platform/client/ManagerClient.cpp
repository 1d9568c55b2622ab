#include "platform/client/ManagerClient.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "platform/client/TraceProperty.h"
#include "platform/dbus/ClientConnection.h"

using kst::client::EventHandler;
using kst::client::ReplyCallback;

/// Callers' threads, the connection's I/O thread (`stateChanged`) and the queue (`deliver`) meet
/// here, under `mutex`.
class ManagerClient : public std::enable_shared_from_this<ManagerClient> {
 public:
  ManagerClient(std::string clientName, TaskQueue callbackQueue)
      : name(std::move(clientName)),
        queue(std::move(callbackQueue)),
        connection(dbus::kManager, [this](std::optional<MessageValue> change) {
          stateChanged(std::move(change));
        }) {}

  void addHandler(const std::string& event, EventHandler handler);
  void setEvents(bool on);
  void perform(const std::string& command, const MessageDict& request,
               dbus::AnswerReceiver answered);

  const TaskQueue& callbackQueue() const { return queue; }

 private:
  void stateChanged(std::optional<MessageValue> change);
  void submitState();
  void deliver(std::uint64_t submittedPeriod, const MessageValue& payload);

  const std::string name;
  const TaskQueue queue;

  std::mutex mutex;  // guards all up to `connection`
  std::map<std::string, std::vector<EventHandler>> handlers;
  bool eventsOn = false;
  std::uint64_t period = 0;  // counts the changes of `eventsOn`; what was submitted in an earlier
                             // period is not delivered any more
  std::optional<MessageValue> serverState;  // as last reported; nothing while unknown

  dbus::ClientConnection
      connection;  // calls `stateChanged` from its construction to its destruction
};

void ManagerClient::addHandler(const std::string& event, EventHandler handler) {
  const std::lock_guard lock(mutex);
  handlers[event].push_back(std::move(handler));
}

void ManagerClient::setEvents(bool on) {
  const std::lock_guard lock(mutex);
  eventsOn = on;
  ++period;
  submitState();
}

void ManagerClient::stateChanged(std::optional<MessageValue> change) {
  MessageValue state = change ? std::move(*change) : MessageValue(kst::kServerStateStopped);
  const std::lock_guard lock(mutex);
  if (serverState != state) {
    serverState = std::move(state);
    submitState();
  }
}

/// Submits the current state for delivery, if there is one and it is wanted. REQUIRES: `mutex` is
/// held, which keeps events in order.
void ManagerClient::submitState() {
  if (!eventsOn || !serverState) {
    return;
  }
  MessageDict payload;
  payload.set(kst::kKeyServerState, *serverState);
  queue.submit([weak = weak_from_this(), submittedPeriod = period,
                value = MessageValue(std::move(payload))] {
    if (const std::shared_ptr<ManagerClient> self = weak.lock()) {
      self->deliver(submittedPeriod, value);
    }
  });
}

void ManagerClient::deliver(std::uint64_t submittedPeriod, const MessageValue& payload) {
  std::vector<EventHandler> called;
  {
    const std::lock_guard lock(mutex);
    if (submittedPeriod != period) {
      return;
    }
    called = handlers[kst::kEventServerStateChange];
  }
  for (const EventHandler& handler : called) {
    handler(payload, TaskGroup());
  }
}

/// Sends a command; `answered` is called on a thread that must not block.
void ManagerClient::perform(const std::string& command, const MessageDict& request,
                            dbus::AnswerReceiver answered) {
  connection.perform({.client = name, .name = command, .request = request}, std::move(answered));
}

namespace kst::client {

namespace {

/// Answers in the manager's place what is a setting of the device. A manager that is there is not
/// overridden, whatever its status.
void answerWhileNotRunning(const std::string& command, const MessageDict& request,
                           CommandResult& result, std::optional<MessageValue>& reply) {
  if (!reply && result.status == kResultManagerNotRunning && command == kCommandGetTraceProperty) {
    result = {};
    reply = answerTraceProperty(request);
  }
}

}  // namespace

std::shared_ptr<ManagerClient> CreateManager(const std::string& name, const TaskQueue& queue) {
  return std::make_shared<ManagerClient>(name, queue);
}

void RegisterEventHandler(std::shared_ptr<ManagerClient> manager, const std::string& event,
                          EventHandler handler) {
  manager->addHandler(event, std::move(handler));
}

void EventsOff(std::shared_ptr<ManagerClient> manager) { manager->setEvents(false); }

void EventsOn(std::shared_ptr<ManagerClient> manager) { manager->setEvents(true); }

void PerformCommand(std::shared_ptr<ManagerClient> manager, const std::string& command,
                    ReplyCallback callback, const MessageDict& request) {
  // The callback is moved all the way, never copied, so that the only copy dies on the queue.
  auto answered = [queue = manager->callbackQueue(), command = command, request = request,
                   callback = std::move(callback)](CommandResult result,
                                                   std::optional<MessageValue> reply) mutable {
    queue.submit([command = std::move(command), request = std::move(request),
                  callback = std::move(callback), result = std::move(result),
                  reply = std::move(reply)]() mutable {
      answerWhileNotRunning(command, request, result, reply);
      callback(result, std::move(reply).value_or(MessageValue()));
    });
  };
  manager->perform(command, request, std::move(answered));
}

}  // namespace kst::client
