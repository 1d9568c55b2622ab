#include "platform/dbus/Service.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <system_error>
#include <utility>

#include "platform/client/Constants.h"
#include "platform/dbus/MessageCodec.h"
#include "platform/dbus/SdBus.h"

namespace dbus {

namespace {

/// How long the bus may take for each of the answers that the service wants of it.
constexpr std::chrono::microseconds kBusLimit = std::chrono::seconds(5);

/// How long the end of the service waits for the bus to take what was sent.
constexpr std::chrono::milliseconds kFlushLimit(500);

/// How many calls may wait for the bus to tell who makes them.
constexpr std::size_t kMaximumArrivals = 64;

/// Each name that ceases to have an owner, a client's unique name included.
constexpr const char* kNameLosses =
    "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
    "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg2=''";

}  // namespace

/// Belongs to the loop's thread; other threads reach it through the loop only.
struct Service::Connection : std::enable_shared_from_this<Connection> {
  /// A call that nobody has answered yet. Keeps no more of the caller's message than that takes.
  struct Unanswered {
    std::string callerName;  // its unique name on the bus
    MessagePtr reply;        // empty so far
    std::weak_ptr<PerformCall> call;
  };

  /// A call that waits for its turn to be performed.
  struct Arrival {
    Connection& connection;
    std::shared_ptr<PerformCall> call;
    bool callerKnown;  // as far as the bus tells
  };

  Connection(EventLoop& eventLoop, const Peer& ownPeer, Handler performHandler,
             std::function<void()> lostHandler)
      : loop(eventLoop),
        peer(ownPeer),
        perform(std::move(performHandler)),
        lost(std::move(lostHandler)) {}

  EventLoop& loop;
  const Peer peer;
  const Handler perform;
  const std::function<void()> lost;
  BusPtr bus;
  bool closing = false;  // the handlers above are not to be called any more
  std::string serverState = kst::kServerStateStarting;
  std::map<std::uint64_t, Unanswered>
      unanswered;  // by an identifier that other threads may hold; must go before `bus`
  std::uint64_t lastIdentifier = 0;
  std::deque<Arrival> arrivals;  // in order; the bus's replies point at them

  void accept(const char* callerName, Command command, MessagePtr reply);
  std::shared_ptr<PerformCall> addUnanswered(const char* callerName, MessagePtr reply);
  void askForCaller(const char* callerName, Arrival& arrival);
  void performArrivals();
  void sendAnswer(std::uint64_t identifier, const CommandResult& result, const MessageValue& value);

  static int onPerform(sd_bus_message* message, void* self, sd_bus_error* error);
  static int onCaller(sd_bus_message* message, void* waitingArrival, sd_bus_error* error);
  static int onNameLost(sd_bus_message* message, void* self, sd_bus_error* error);
  static int onDisconnected(sd_bus_message* message, void* self, sd_bus_error* error);
  static int getServerState(sd_bus* bus, const char* path, const char* interface,
                            const char* property, sd_bus_message* reply, void* self,
                            sd_bus_error* error);
};

int Service::Connection::onPerform(sd_bus_message* message, void* self, sd_bus_error* /*error*/) {
  auto& connection = *static_cast<Connection*>(self);
  if (connection.closing) {
    return 1;
  }
  sd_bus_message* made = nullptr;
  if (const int r = sd_bus_message_new_method_return(message, &made); r < 0) {
    return r;
  }
  MessagePtr reply(made);
  Command command;
  const CommandResult refusal = connection.arrivals.size() < kMaximumArrivals
                                    ? readCall(message, connection.peer, command)
                                    : CommandResult{kst::kResultBusy, "too many calls at once"};
  if (refusal.status != 0) {
    const int r = sendReply(made, refusal, {});
    return r < 0 ? r : 1;
  }
  connection.accept(sd_bus_message_get_sender(message), std::move(command), std::move(reply));
  return 1;
}

void Service::Connection::accept(const char* callerName, Command command, MessagePtr reply) {
  auto call = addUnanswered(callerName, std::move(reply));
  call->command = std::move(command);
  arrivals.push_back({*this, std::move(call), false});
  askForCaller(callerName, arrivals.back());
}

std::shared_ptr<PerformCall> Service::Connection::addUnanswered(const char* callerName,
                                                                MessagePtr reply) {
  const std::uint64_t identifier = ++lastIdentifier;
  // The answer may come from another thread, and when this has gone.
  auto call =
      std::make_shared<PerformCall>([&eventLoop = loop, watched = weak_from_this(), identifier](
                                        CommandResult result, std::optional<MessageValue> value) {
        eventLoop.post([watched, identifier, result = std::move(result), value = std::move(value)] {
          if (const auto self = watched.lock()) {
            self->sendAnswer(identifier, result, value.value_or(MessageValue()));
          }
        });
      });
  unanswered.emplace(identifier, Unanswered{callerName, std::move(reply), call});
  return call;
}

/// Does not wait for the bus: it might be frozen.
void Service::Connection::askForCaller(const char* callerName, Arrival& arrival) {
  if (sd_bus_call_method_async(bus.get(), nullptr, kBusService, kBusPath, kBusService,
                               "GetConnectionCredentials", onCaller, &arrival, "s",
                               callerName) < 0) {
    arrival.callerKnown = true;
    performArrivals();
  }
}

int Service::Connection::onCaller(sd_bus_message* message, void* waitingArrival,
                                  sd_bus_error* /*error*/) {
  auto& arrival = *static_cast<Arrival*>(waitingArrival);
  MessageDict credentials;
  if (sd_bus_message_is_method_error(message, nullptr) == 0 && isFromBus(message) &&
      readDict(message, credentials) >= 0) {
    arrival.call->caller = {static_cast<uid_t>(credentials.integer("UnixUserID", -1)),
                            static_cast<pid_t>(credentials.integer("ProcessID", -1))};
  }
  arrival.callerKnown = true;
  arrival.connection.performArrivals();
  return 0;
}

void Service::Connection::performArrivals() {
  while (!closing && !arrivals.empty() && arrivals.front().callerKnown) {
    std::shared_ptr<PerformCall> call = std::move(arrivals.front().call);
    arrivals.pop_front();
    perform(std::move(call));
  }
}

void Service::Connection::sendAnswer(std::uint64_t identifier, const CommandResult& result,
                                     const MessageValue& value) {
  if (const auto found = unanswered.extract(identifier)) {
    sendReply(found.mapped().reply.get(), result, value);
  }
}

/// Some name has no owner any more: a unique name when its connection has left the bus.
int Service::Connection::onNameLost(sd_bus_message* message, void* self, sd_bus_error* /*error*/) {
  auto& connection = *static_cast<Connection*>(self);
  const char* name = "";
  if (!isFromBus(message) || sd_bus_message_read(message, "s", &name) < 0) {
    return 0;
  }
  std::erase_if(connection.unanswered, [name](const auto& entry) {
    if (entry.second.callerName != name) {
      return false;
    }
    if (const auto call = entry.second.call.lock()) {
      call->left = true;
    }
    return true;
  });
  return 0;
}

int Service::Connection::onDisconnected(sd_bus_message* /*message*/, void* self,
                                        sd_bus_error* /*error*/) {
  const auto& connection = *static_cast<Connection*>(self);
  if (!connection.closing) {
    connection.lost();
  }
  return 0;
}

int Service::Connection::getServerState(sd_bus* /*bus*/, const char* /*path*/,
                                        const char* /*interface*/, const char* /*property*/,
                                        sd_bus_message* reply, void* self,
                                        sd_bus_error* /*error*/) {
  return sd_bus_message_append(reply, "s", static_cast<Connection*>(self)->serverState.c_str());
}

PerformCall::PerformCall(AnswerReceiver receiver)
    : pending(std::move(receiver), {kst::kResultCallFailed, "the service dropped the call"}) {}

void PerformCall::answer(CommandResult result, MessageValue reply) {
  pending.send(std::move(result), std::move(reply));
}

Service::Service(EventLoop& loop, const Peer& peer, Handler perform, std::function<void()> lost)
    : connection(std::make_shared<Connection>(loop, peer, std::move(perform), std::move(lost))) {
  static const std::array<sd_bus_vtable, 4> kManagerTable = {{
      SD_BUS_VTABLE_START(0),
      SD_BUS_METHOD_WITH_NAMES("Perform", "ssa{sv}",
                               SD_BUS_PARAM(client) SD_BUS_PARAM(command) SD_BUS_PARAM(request),
                               "isv", SD_BUS_PARAM(status) SD_BUS_PARAM(text) SD_BUS_PARAM(reply),
                               Connection::onPerform, SD_BUS_VTABLE_UNPRIVILEGED),
      SD_BUS_PROPERTY("ServerState", "s", Connection::getServerState, 0,
                      SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
      SD_BUS_VTABLE_END,
  }};
  static const std::array<sd_bus_vtable, 3> kHelperTable = {{
      SD_BUS_VTABLE_START(0),
      SD_BUS_METHOD_WITH_NAMES("Perform", "sisa{sv}",
                               SD_BUS_PARAM(client) SD_BUS_PARAM(task) SD_BUS_PARAM(command)
                                   SD_BUS_PARAM(request),
                               "isv", SD_BUS_PARAM(status) SD_BUS_PARAM(text) SD_BUS_PARAM(reply),
                               Connection::onPerform, SD_BUS_VTABLE_UNPRIVILEGED),
      SD_BUS_VTABLE_END,
  }};
  sd_bus* opened = nullptr;
  throwIfFailed(sd_bus_open_system(&opened), "system bus");
  connection->bus.reset(opened);
  throwIfFailed(awaitReady(opened, kBusLimit), "system bus");
  throwIfFailed(
      sd_bus_set_method_call_timeout(opened, static_cast<std::uint64_t>(kBusLimit.count())),
      "system bus");
  // By itself, sd-bus would flush when the loop ends, and a frozen bus would hold up the end.
  throwIfFailed(sd_bus_set_close_on_exit(opened, 0), "system bus");
  throwIfFailed(sd_bus_attach_event(opened, loop.native(), SD_EVENT_PRIORITY_NORMAL), "system bus");
  throwIfFailed(sd_bus_match_signal(opened, nullptr, "org.freedesktop.DBus.Local", nullptr,
                                    "org.freedesktop.DBus.Local", "Disconnected",
                                    Connection::onDisconnected, connection.get()),
                "system bus");
  throwIfFailed(sd_bus_add_match_async(opened, nullptr, kNameLosses, Connection::onNameLost,
                                       nullptr, connection.get()),
                "system bus");
  const sd_bus_vtable* const table =
      peer.hasServerState ? kManagerTable.data() : kHelperTable.data();
  throwIfFailed(
      sd_bus_add_object_vtable(opened, nullptr, peer.path, peer.interface, table, connection.get()),
      peer.path);
  throwIfFailed(sd_bus_request_name(opened, peer.service, 0), peer.service);
}

Service::~Service() {
  connection->closing = true;
  flush(connection->bus.get(), kFlushLimit);
}

void Service::setServerState(const std::string& state) {
  connection->serverState = state;
  sd_bus_emit_properties_changed(connection->bus.get(), connection->peer.path,
                                 connection->peer.interface, kServerStateProperty, nullptr);
}

}  // namespace dbus
