#include "platform/dbus/ClientConnection.h"

#include <pthread.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "platform/dbus/EventLoop.h"
#include "platform/dbus/MessageCodec.h"
#include "platform/dbus/SdBus.h"

namespace dbus {

namespace {

/// How long after a failed or lost connection the next attempt comes.
constexpr std::chrono::milliseconds kRetryDelay(250);

/// How long a bus, and then a service, may take to answer for the first time before calls do not
/// wait for it any more.
constexpr std::chrono::milliseconds kFirstAnswerLimit(3000);

/// sd-bus's value for a call without a time limit.
constexpr std::uint64_t kNoTimeLimit = UINT64_MAX;

constexpr const char* kPropertiesInterface = "org.freedesktop.DBus.Properties";

/// Whether `name` is in the list of texts that comes next in the message.
bool lists(sd_bus_message* message, std::string_view name) {
  const char* entry = "";
  bool found = false;
  if (sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, "s") > 0) {
    while (!found && sd_bus_message_read_basic(message, SD_BUS_TYPE_STRING, &entry) > 0) {
      found = entry == name;
    }
  }
  return found;
}

}  // namespace

/// What lives on the I/O thread. Everything but the loop's `post` and `stop` belongs to that
/// thread.
class ClientConnection::Io {
 public:
  Io(const Peer& servicePeer, StateHandler handler)
      : peer(servicePeer), stateChanged(std::move(handler)) {
    loop.post([this] { connect(); });
  }

  /// Serves the connection until the loop is stopped.
  void run();

  void perform(const Command& command, Answer answer);

  EventLoop loop;

 private:
  struct WaitingCall {
    Command command;
    Answer answer;
  };

  struct PendingCall {
    Io& io;
    Answer answer;
  };

  /// What becomes of calls.
  enum class Calls { kWait, kGo, kFail };

  void connect();
  int openBus();
  int subscribe();
  void leaveBus(const CommandResult& result);
  void disconnect(const CommandResult& result);
  void setTimer(std::chrono::milliseconds delay);
  void onTimer();
  void setOwner(const std::string& newOwner);
  void readState();
  void tellState(MessageValue state);
  void letCallsGo();
  void failCalls(const CommandResult& result);
  void send(const Command& command, Answer answer);
  [[nodiscard]] bool isConnected() const { return bus && sd_bus_is_open(bus.get()) > 0; }

  static int onBusAnswer(sd_bus_message* message, void* self, sd_bus_error* error);
  static int onOwnerChanged(sd_bus_message* message, void* self, sd_bus_error* error);
  static int onPropertiesChanged(sd_bus_message* message, void* self, sd_bus_error* error);
  static int onState(sd_bus_message* message, void* self, sd_bus_error* error);
  static int onDisconnected(sd_bus_message* message, void* self, sd_bus_error* error);
  static int onReply(sd_bus_message* message, void* pendingCall, sd_bus_error* error);

  const Peer peer;
  const StateHandler stateChanged;
  const CommandResult noBus{peer.notRunning, "there is no bus"};
  const CommandResult silentBus{peer.notRunning, "the bus does not answer"};
  const CommandResult silentService{kst::kResultCallFailed, "the service does not answer"};

  Calls calls = Calls::kWait;
  std::deque<WaitingCall> waiting;  // empty unless calls wait
  CommandResult failure;            // what calls that fail get
  BusPtr bus;                       // empty between two attempts to connect
  bool busAnswered = false;         // `bus` has
  bool busWasSilent = false;        // when last tried: calls need not wait for it again
  std::string owner;            // the unique name of the service; empty while it is not on the bus
  SlotPtr stateQuery;           // the property query that is out; must go before `bus`
  std::uint64_t timerSets = 0;  // only the timer that was set last counts
};

void ClientConnection::Io::run() {
  try {
    loop.run();
  } catch (const std::system_error& error) {
    // Calls that come now are answered by the loop's dropping them.
    leaveBus({peer.notRunning, error.what()});
  }
}

void ClientConnection::Io::connect() {
  if (openBus() < 0) {
    disconnect(noBus);
    return;
  }
  if (!busWasSilent) {
    calls = Calls::kWait;
  }
  setTimer(kFirstAnswerLimit);
}

int ClientConnection::Io::openBus() {
  sd_bus* opened = nullptr;
  int r = sd_bus_open_system(&opened);
  if (r < 0) {
    return r;
  }
  bus.reset(opened);
  // By itself, sd-bus would flush when the loop ends, and a frozen bus would hold up the end.
  r = sd_bus_set_close_on_exit(opened, 0);
  if (r >= 0) {
    r = sd_bus_attach_event(opened, loop.native(), SD_EVENT_PRIORITY_NORMAL);
  }
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

/// Gives up the bus, if there is one. The state is told before the answers that the loss gives.
void ClientConnection::Io::leaveBus(const CommandResult& result) {
  busAnswered = false;
  owner.clear();
  stateChanged(std::nullopt);
  failCalls(result);
  stateQuery.reset();
  bus.reset();  // calls that are out are answered by this
}

void ClientConnection::Io::disconnect(const CommandResult& result) {
  leaveBus(result);
  setTimer(kRetryDelay);
}

void ClientConnection::Io::setTimer(std::chrono::milliseconds delay) {
  loop.after(delay, [this, set = ++timerSets] {
    if (set == timerSets) {
      onTimer();
    }
  });
}

void ClientConnection::Io::onTimer() {
  if (!bus) {
    connect();
  } else if (!busAnswered) {
    busWasSilent = true;
    disconnect(silentBus);
  } else if (calls == Calls::kWait) {
    failCalls(silentService);  // until it does answer
  }
}

/// Lets all calls through to the bus.
void ClientConnection::Io::letCallsGo() {
  calls = Calls::kGo;
  for (WaitingCall& call : std::exchange(waiting, {})) {
    send(call.command, std::move(call.answer));
  }
}

/// Answers calls with `result` from now on, those that have waited first.
void ClientConnection::Io::failCalls(const CommandResult& result) {
  calls = Calls::kFail;
  failure = result;
  for (WaitingCall& call : std::exchange(waiting, {})) {
    call.answer.send(failure);
  }
}

void ClientConnection::Io::setOwner(const std::string& newOwner) {
  busAnswered = true;
  busWasSilent = false;
  if (!newOwner.empty() && newOwner == owner) {
    return;
  }
  if (!owner.empty() || newOwner.empty()) {
    stateChanged(std::nullopt);
  }
  owner = newOwner;
  stateQuery.reset();
  if (owner.empty()) {
    letCallsGo();
  } else {
    calls = Calls::kWait;
    setTimer(kFirstAnswerLimit);
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

/// The service has told its state, and so has answered.
void ClientConnection::Io::tellState(MessageValue state) {
  stateChanged(std::move(state));
  letCallsGo();
}

void ClientConnection::Io::perform(const Command& command, Answer answer) {
  switch (calls) {
    case Calls::kWait:
      waiting.push_back({command, std::move(answer)});
      break;
    case Calls::kGo:
      send(command, std::move(answer));
      break;
    case Calls::kFail:
      answer.send(failure);
      break;
  }
}

void ClientConnection::Io::send(const Command& command, Answer answer) {
  MessagePtr call;
  std::unique_ptr<PendingCall> pending(new PendingCall{*this, std::move(answer)});
  sd_bus_slot* slot = nullptr;
  int r = makeCall(bus.get(), peer, command, call);
  if (r >= 0) {
    r = sd_bus_call_async(bus.get(), &slot, call.get(), onReply, pending.get(), kNoTimeLimit);
  }
  if (r < 0) {
    const bool lost = isDisconnect(-r);
    if (lost) {
      stateChanged(std::nullopt);
    }
    pending->answer.send(
        lost ? noBus : CommandResult{kst::kResultCallFailed, std::generic_category().message(-r)});
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
  std::optional<MessageValue> reply;
  CommandResult result = readReply(message, call.io.peer, reply);
  if (!call.io.isConnected()) {
    call.io.stateChanged(std::nullopt);  // `onDisconnected` comes after all answers
  }
  call.answer.send(std::move(result), std::move(reply));
  return 0;
}

/// The first answer of the bus itself: who owns the service's name.
int ClientConnection::Io::onBusAnswer(sd_bus_message* message, void* self,
                                      sd_bus_error* /*error*/) {
  auto& io = *static_cast<Io*>(self);
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
  if (isFromBus(message) && sd_bus_message_read(message, "sss", nullptr, nullptr, &newOwner) >= 0) {
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
  if (sd_bus_message_skip(message, "s") < 0 || readDict(message, changed) < 0) {
    return 0;
  }
  if (const MessageValue* state = changed.find(kServerStateProperty)) {
    io.tellState(*state);
  } else if (!io.stateQuery && lists(message, kServerStateProperty)) {
    io.readState();  // a query that is out will be answered after this
  }
  return 0;
}

int ClientConnection::Io::onState(sd_bus_message* message, void* self, sd_bus_error* /*error*/) {
  auto& io = *static_cast<Io*>(self);
  if (!io.isConnected()) {
    return 0;
  }
  MessageValue state;
  if (sd_bus_message_is_method_error(message, nullptr) > 0 || readVariant(message, state) < 0) {
    state = MessageValue();
  }
  io.stateQuery.reset();
  io.tellState(std::move(state));
  return 0;
}

int ClientConnection::Io::onDisconnected(sd_bus_message* /*message*/, void* self,
                                         sd_bus_error* /*error*/) {
  auto& io = *static_cast<Io*>(self);
  // Not from within a callback of the bus that goes.
  io.loop.post([&io] { io.disconnect(io.noBus); });
  return 0;
}

ClientConnection::ClientConnection(const Peer& servicePeer, StateHandler stateChanged)
    : peer(servicePeer) {
  try {
    io = std::make_unique<Io>(peer, stateChanged);
    thread = std::thread([this] { io->run(); });
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
    io->perform(command, std::move(*shared));
  });
}

}  // namespace dbus
