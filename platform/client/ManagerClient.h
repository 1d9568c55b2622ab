#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/client/Constants.h"
#include "platform/message/CommandResult.h"
#include "platform/message/MessageDict.h"
#include "platform/tasks/TaskGroup.h"
#include "platform/tasks/TaskQueue.h"

/// A connection to the manager service. It exists whether or not there is a service or a bus, and
/// connects on its own as soon as there is. Every function below may be called from any thread but
/// the client's I/O thread, which runs no code of the caller.
class ManagerClient;

namespace kst::client {

/// Called with an event's payload (for kEventServerStateChange a dictionary with kKeyServerState)
/// and a group of the client, which is empty: the client does not wait for a handler's asynchronous
/// work.
using EventHandler = std::function<void(const MessageValue& payload, TaskGroup group)>;

/// Called with the result and the service's reply; the reply is null when there is none.
using ReplyCallback = std::function<void(const CommandResult& result, const MessageValue& reply)>;

/// Makes a client that calls itself `name` to the service and delivers its callbacks on `queue`, of
/// which it keeps a handle. Never empty, and never waits for the bus. The connection ends with the
/// last handle.
std::shared_ptr<ManagerClient> CreateManager(const std::string& name, const TaskQueue& queue);

/// Has a copy of `handler` called for every event of that name, in order, while events are on.
/// There is no way to take it back.
void RegisterEventHandler(std::shared_ptr<ManagerClient> manager, const std::string& event,
                          EventHandler handler);

/// Stops delivery, as it is at first. No event is delivered after this has returned, but for one
/// whose handler already runs.
void EventsOff(std::shared_ptr<ManagerClient> manager);

/// Starts delivery: at once the current server state, if it is known or else as soon as it is, then
/// every change. A service that leaves the bus counts as kServerStateStopped.
void EventsOn(std::shared_ptr<ManagerClient> manager);

/// Has the service perform a command and returns at once. `callback` is called exactly once, on the
/// client's queue, and destroyed there right after, whatever becomes of service and bus: status
/// kResultManagerNotRunning when the service is not there, and other codes of CommandResult.h when
/// there is no well-formed reply. A command has no time limit. While the manager is not running,
/// kCommandGetTraceProperty is answered from the device configuration.
void PerformCommand(std::shared_ptr<ManagerClient> manager, const std::string& command,
                    ReplyCallback callback, const MessageDict& request);

/// The same, but blocks until the reply is in `reply`; the events from before it have been
/// delivered by then. REQUIRES: not called on the client's queue.
CommandResult PerformCommand(std::shared_ptr<ManagerClient> manager, const std::string& command,
                             const MessageDict& request, MessageValue& reply);

}  // namespace kst::client
