#include "platform/dbus/ClientConnection.h"

#include <pthread.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <system_error>
#include <utility>

#include "platform/dbus/EventLoop.h"
#include "platform/dbus/MessageCodec.h"
#include "platform/dbus/SdBus.h"

namespace dbus {

namespace {

/// How long after a failed or lost connection the next attempt comes.
constexpr std::chrono::milliseconds kRetryDelay(250);

/// How long a bus may take to answer for the first time before the connection is given up.
constexpr std::chrono::milliseconds kConnectLimit(5000);

/// sd-bus's value for a call without a time limit.
constexpr std::uint64_t kNoTimeLimit = UINT64_MAX;

constexpr const char* kPropertiesInterface = "org.freedesktop.DBus.Properties";

}  // namespace

/// What lives on the I/O thread. Everything but the loop's `post` and `stop` belongs to that
/// thread.
class ClientConnection::Io {
 public:
  Io(const Peer& servicePeer, StateHandler handler)
      : peer(servicePeer), stateChanged(std::move(handler)) {
    loop.post([this] { connect(); });
  }

  void connect();
  void send(const Command& command, Answer answer);

  EventLoop loop;

 private:
  struct PendingCall {
    Io& io;
    Answer answer;

    ~PendingCall() {
      if (io.unreachable) {
        answer.send({io.peer.notRunning, "the bus does not answer"});
      }
    }
  };

  int openBus();
  int subscribe();
  void disconnect();
  void setOwner(const std::string& newOwner);
  void readState();

  static int onBusAnswer(sd_bus_message* message, void* self, sd_bus_error* error);
  static int onOwnerChanged(sd_bus_message* message, void* self, sd_bus_error* error);
  static int onPropertiesChanged(sd_bus_message* message, void* self, sd_bus_error* error);
  static int onState(sd_bus_message* message, void* self, sd_bus_error* error);
  static int onDisconnected(sd_bus_message* message, void* self, sd_bus_error* error);
  static int onReply(sd_bus_message* message, void* pendingCall, sd_bus_error* error);
  static int onConnectLimit(sd_event_source* source, std::uint64_t time, void* self);

  const Peer peer;
  const StateHandler stateChanged;
  bool answered = false;        // whether `bus` has ever answered
  bool unreachable = false;     // `bus` is given up before anything could be sent on it
  BusPtr bus;                   // empty between two attempts to connect
  std::string owner;            // the unique name of the service; empty while it is not on the bus
  SlotPtr stateQuery;           // the property query that is out; must go before `bus`
  EventSourcePtr connectLimit;  // runs until the bus has answered for the first time
};

void ClientConnection::Io::connect() {
  if (openBus() < 0) {
    disconnect();
    return;
  }
  sd_event_source* source = nullptr;
  const std::chrono::microseconds limit = kConnectLimit;
  if (sd_event_add_time_relative(loop.native(), &source, CLOCK_MONOTONIC,
                                 static_cast<std::uint64_t>(limit.count()), 0, onConnectLimit,
                                 this) >= 0) {
    connectLimit.reset(source);
  }
}

int ClientConnection::Io::onConnectLimit(sd_event_source* /*source*/, std::uint64_t /*time*/,
                                         void* self) {
  auto& io = *static_cast<Io*>(self);
  if (sd_bus_is_ready(io.bus.get()) == 0) {
    io.unreachable = true;
    io.disconnect();
  }
  return 0;
}

int ClientConnection::Io::openBus() {
  sd_bus* opened = nullptr;
  int r = sd_bus_open_system(&opened);
  if (r < 0) {
    return r;
  }
  bus.reset(opened);
  r = sd_bus_attach_event(opened, loop.native(), SD_EVENT_PRIORITY_NORMAL);
  return r < 0 ? r : subscribe();
}

/// Asks for everything that tells the server state. The bus handles these requests in order, so no
/// change falls between them.
int ClientConnection::Io::subscribe() {
  const std::string service = peer.service;
  const std::string ownerChanges = std::string("type='signal',sender='") + kBusService +
                                   "',path='" + kBusPath + "',interface='" + kBusService +
                                   "',member='NameOwnerChanged',arg0='" + service + "'";
  const std::string propertyChanges = "type='signal',sender='" + service + "',path='" + peer.path +
                                      "',interface='" + kPropertiesInterface +
                                      "',member='PropertiesChanged',arg0='" + peer.interface + "'";
  int r = sd_bus_match_signal(bus.get(), nullptr, "org.freedesktop.DBus.Local", nullptr,
                              "org.freedesktop.DBus.Local", "Disconnected", onDisconnected, this);
  if (r >= 0) {
    r = sd_bus_add_match_async(bus.get(), nullptr, ownerChanges.c_str(), onOwnerChanged, nullptr,
                               this);
  }
  if (r >= 0) {
    r = sd_bus_add_match_async(bus.get(), nullptr, propertyChanges.c_str(), onPropertiesChanged,
                               nullptr, this);
  }
  if (r >= 0) {
    r = sd_bus_call_method_async(bus.get(), nullptr, kBusService, kBusPath, kBusService,
                                 "GetNameOwner", onBusAnswer, this, "s", peer.service);
  }
  return r;
}

void ClientConnection::Io::disconnect() {
  connectLimit.reset();
  stateQuery.reset();
  bus.reset();  // calls that are still out are answered by this
  answered = false;
  unreachable = false;
  owner.clear();
  stateChanged(std::nullopt);
  loop.after(kRetryDelay, [this] { connect(); });
}

void ClientConnection::Io::setOwner(const std::string& newOwner) {
  if (!newOwner.empty() && newOwner == owner) {
    return;
  }
  owner = newOwner;
  stateQuery.reset();
  if (owner.empty()) {
    stateChanged(std::nullopt);
  } else {
    readState();
  }
}

void ClientConnection::Io::readState() {
  sd_bus_message* message = nullptr;
  if (sd_bus_message_new_method_call(bus.get(), &message, owner.c_str(), peer.path,
                                     kPropertiesInterface, "Get") < 0) {
    return;
  }
  const MessagePtr call(message);
  sd_bus_slot* slot = nullptr;
  if (sd_bus_message_append(message, "ss", peer.interface, kServerStateProperty) >= 0 &&
      sd_bus_call_async(bus.get(), &slot, message, onState, this, kNoTimeLimit) >= 0) {
    stateQuery.reset(slot);
  }
}

void ClientConnection::Io::send(const Command& command, Answer answer) {
  const CommandResult notRunning{peer.notRunning, "there is no bus"};
  if (!bus) {
    answer.send(notRunning);
    return;
  }
  MessagePtr call;
  std::unique_ptr<PendingCall> pending(new PendingCall{*this, std::move(answer)});
  sd_bus_slot* slot = nullptr;
  int r = makeCall(bus.get(), peer, command, call);
  if (r >= 0) {
    r = sd_bus_call_async(bus.get(), &slot, call.get(), onReply, pending.get(), kNoTimeLimit);
  }
  if (r < 0) {
    pending->answer.send(isDisconnect(-r) ? notRunning
                                          : CommandResult{kst::kResultCallFailed,
                                                          std::generic_category().message(-r)});
    return;
  }
  // The slot owns the call from here on, and the bus the slot: when either goes, the call is
  // answered.
  sd_bus_slot_set_destroy_callback(slot,
                                   [](void* data) { delete static_cast<PendingCall*>(data); });
  sd_bus_slot_set_floating(slot, 1);
  sd_bus_slot_unref(slot);
  static_cast<void>(pending.release());
}

int ClientConnection::Io::onReply(sd_bus_message* message, void* pendingCall,
                                  sd_bus_error* /*error*/) {
  auto& call = *static_cast<PendingCall*>(pendingCall);
  MessageValue reply;
  CommandResult result = readReply(message, call.io.peer, reply);
  if (result.status == kst::kResultReplyLost && !call.io.answered) {
    result.status = call.io.peer.notRunning;  // the bus never took the connection in
  }
  call.answer.send(std::move(result), std::move(reply));
  return 0;
}

/// The first answer of the bus itself: who owns the service's name.
int ClientConnection::Io::onBusAnswer(sd_bus_message* message, void* self,
                                      sd_bus_error* /*error*/) {
  auto& io = *static_cast<Io*>(self);
  if (sd_bus_message_is_method_error(message, SD_BUS_ERROR_NO_REPLY) > 0) {
    return 0;  // the connection failed; `onDisconnected` comes next
  }
  io.answered = true;
  io.connectLimit.reset();
  const char* name = "";
  if (sd_bus_message_is_method_error(message, nullptr) > 0 ||
      sd_bus_message_read(message, "s", &name) < 0) {
    name = "";
  }
  io.setOwner(name);
  return 0;
}

int ClientConnection::Io::onOwnerChanged(sd_bus_message* message, void* self,
                                         sd_bus_error* /*error*/) {
  const char* newOwner = "";
  if (sd_bus_message_read(message, "sss", nullptr, nullptr, &newOwner) >= 0) {
    static_cast<Io*>(self)->setOwner(newOwner);
  }
  return 0;
}

int ClientConnection::Io::onPropertiesChanged(sd_bus_message* message, void* self,
                                              sd_bus_error* /*error*/) {
  auto& io = *static_cast<Io*>(self);
  const char* sender = sd_bus_message_get_sender(message);
  if (!sender || sender != io.owner) {
    return 0;
  }
  MessageDict changed;
  const bool readable = sd_bus_message_skip(message, "s") >= 0 && readDict(message, changed) >= 0;
  const MessageValue* state = readable ? changed.find(kServerStateProperty) : nullptr;
  if (state) {
    io.stateChanged(*state);
  } else {
    io.readState();
  }
  return 0;
}

int ClientConnection::Io::onState(sd_bus_message* message, void* self, sd_bus_error* /*error*/) {
  auto& io = *static_cast<Io*>(self);
  MessageValue state;
  if (sd_bus_message_is_method_error(message, nullptr) > 0 || readVariant(message, state) < 0) {
    state = MessageValue();
  }
  io.stateQuery.reset();
  io.stateChanged(std::move(state));
  return 0;
}

int ClientConnection::Io::onDisconnected(sd_bus_message* /*message*/, void* self,
                                         sd_bus_error* /*error*/) {
  auto& io = *static_cast<Io*>(self);
  io.loop.post([&io] { io.disconnect(); });  // not from within a callback of the bus that goes
  return 0;
}

ClientConnection::ClientConnection(const Peer& servicePeer, StateHandler stateChanged)
    : peer(servicePeer) {
  try {
    io = std::make_unique<Io>(peer, stateChanged);
    thread = std::thread([this] { io->loop.run(); });
    pthread_setname_np(thread.native_handle(), "kst.bus");
  } catch (const std::system_error&) {
    io.reset();
    stateChanged(std::nullopt);
  }
}

ClientConnection::~ClientConnection() {
  if (io) {
    io->loop.stop();
    thread.join();
  }
}

void ClientConnection::perform(Command command, AnswerReceiver answered) {
  Answer answer(std::move(answered), {kst::kResultReplyLost, "the connection was closed"});
  if (!io) {
    answer.send({peer.notRunning, "there is no connection"});
    return;
  }
  // std::function wants to be copyable, which an answer is not.
  auto shared = std::make_shared<Answer>(std::move(answer));
  io->loop.post([io = io.get(), command = std::move(command), shared] {
    io->send(command, std::move(*shared));
  });
}

}  // namespace dbus
