#include "platform/dbus/Service.h"

#include <array>
#include <cstdint>
#include <map>
#include <system_error>
#include <utility>

#include "platform/dbus/MessageCodec.h"
#include "platform/dbus/SdBus.h"

namespace dbus {

namespace {

void check(int r, const std::string& step) {
  if (r < 0) {
    throw std::system_error(-r, std::generic_category(), step);
  }
}

}  // namespace

/// Belongs to the loop's thread; other threads reach it through the loop only.
struct Service::Connection {
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
  std::string serverState = "Starting";
  std::map<std::uint64_t, MessagePtr>
      unanswered;  // calls by an identifier that other threads may hold; must go before `bus`
  std::uint64_t lastIdentifier = 0;

  void sendAnswer(std::uint64_t identifier, const CommandResult& result, const MessageValue& reply);

  static int onPerform(sd_bus_message* message, void* self, sd_bus_error* error);
  static int onDisconnected(sd_bus_message* message, void* self, sd_bus_error* error);
  static int getServerState(sd_bus* bus, const char* path, const char* interface,
                            const char* property, sd_bus_message* reply, void* self,
                            sd_bus_error* error);
};

int Service::Connection::onPerform(sd_bus_message* message, void* self, sd_bus_error* /*error*/) {
  auto& connection = *static_cast<Connection*>(self);
  const std::uint64_t identifier = ++connection.lastIdentifier;
  auto call = std::make_shared<PerformCall>(
      [&connection, identifier](CommandResult result, MessageValue reply) {
        connection.loop.post(
            [&connection, identifier, result = std::move(result), reply = std::move(reply)] {
              connection.sendAnswer(identifier, result, reply);
            });
      });
  if (const int r = readCall(message, connection.peer, call->command); r < 0) {
    return r;
  }
  connection.unanswered.emplace(identifier, sd_bus_message_ref(message));
  connection.perform(std::move(call));
  return 1;
}

void Service::Connection::sendAnswer(std::uint64_t identifier, const CommandResult& result,
                                     const MessageValue& reply) {
  const auto call = unanswered.find(identifier);
  if (call == unanswered.end()) {
    return;
  }
  if (const int r = sendReply(call->second.get(), result, reply); r < 0) {
    sd_bus_reply_method_errno(call->second.get(), r, nullptr);
  }
  unanswered.erase(call);
}

int Service::Connection::onDisconnected(sd_bus_message* /*message*/, void* self,
                                        sd_bus_error* /*error*/) {
  static_cast<Connection*>(self)->lost();
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
    : connection(std::make_unique<Connection>(loop, peer, std::move(perform), std::move(lost))) {
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
  check(sd_bus_open_system(&opened), "system bus");
  connection->bus.reset(opened);
  check(sd_bus_attach_event(opened, loop.native(), SD_EVENT_PRIORITY_NORMAL), "system bus");
  check(sd_bus_match_signal(opened, nullptr, "org.freedesktop.DBus.Local", nullptr,
                            "org.freedesktop.DBus.Local", "Disconnected",
                            Connection::onDisconnected, connection.get()),
        "system bus");
  const sd_bus_vtable* const table =
      peer.hasServerState ? kManagerTable.data() : kHelperTable.data();
  check(
      sd_bus_add_object_vtable(opened, nullptr, peer.path, peer.interface, table, connection.get()),
      peer.path);
  check(sd_bus_request_name(opened, peer.service, 0), peer.service);
}

Service::~Service() {
  connection->unanswered.clear();
  sd_bus_flush(connection->bus.get());
}

void Service::setServerState(const std::string& state) {
  connection->serverState = state;
  sd_bus_emit_properties_changed(connection->bus.get(), connection->peer.path,
                                 connection->peer.interface, kServerStateProperty, nullptr);
}

}  // namespace dbus
