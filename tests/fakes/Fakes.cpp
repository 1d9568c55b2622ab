#include "tests/fakes/Fakes.h"

#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "platform/client/HelperClient.h"
#include "platform/client/ManagerClient.h"
#include "platform/device/BuildInfo.h"
#include "platform/device/ProcessQuery.h"
#include "platform/device/ProgramName.h"
#include "platform/device/RadioInfo.h"

class ManagerClient {
 public:
  TaskQueue queue;
};

namespace {

struct State {
  fakes::Script script;
  std::vector<std::pair<TaskQueue, kst::client::EventHandler>> handlers;
};

/// Never destroyed: threads of the product may outlive `main`.
State& state() {
  static auto& only = *new State;
  return only;
}

void log(const std::string& line) {
  if (state().script.log != nullptr) {
    *state().script.log << line << std::endl;
  }
}

template <typename Value>
Value logged(const std::string& question, Value answer) {
  log(question);
  return answer;
}

std::string textOf(const MessageDict& request) {
  std::string text;
  for (const auto& [key, value] : request.entries()) {
    text += " " + key + "=";
    text += value.text()      ? "\"" + *value.text() + "\""
            : value.boolean() ? (*value.boolean() ? "true" : "false")
            : value.integer() ? std::to_string(*value.integer())
                              : "null";
  }
  return text;
}

fakes::Answer nextAnswer() {
  fakes::Answer next = state().script.managerAnswers.at(0);
  state().script.managerAnswers.pop_front();
  return next;
}

}  // namespace

fakes::Script& fakes::script() { return state().script; }

fakes::Test::~Test() { state() = {}; }

void fakes::sendEvent(const MessageValue& payload) {
  const TaskGroup done = TaskGroup::create();
  for (const auto& entry : state().handlers) {
    entry.first.submit([&, hold = TaskGroupHold(done)] { entry.second(payload, {}); });
  }
  done.wait();
}

namespace kst::client {

std::shared_ptr<::ManagerClient> CreateManager(const std::string& name, const TaskQueue& queue) {
  log("CreateManager " + name);
  return std::make_shared<::ManagerClient>(::ManagerClient{queue});
}

void RegisterEventHandler(std::shared_ptr<::ManagerClient> manager, const std::string& event,
                          EventHandler handler) {
  log("RegisterEventHandler " + event);
  if (fakes::script().keepsHandlers) {
    state().handlers.emplace_back(manager->queue, std::move(handler));
  }
}

void EventsOff(std::shared_ptr<::ManagerClient> /*manager*/) { log("EventsOff"); }

void EventsOn(std::shared_ptr<::ManagerClient> /*manager*/) { log("EventsOn"); }

void PerformCommand(std::shared_ptr<::ManagerClient> manager, const std::string& command,
                    ReplyCallback callback, const MessageDict& request) {
  log("PerformCommand " + command + textOf(request));
  manager->queue.submit([callback = std::move(callback), answer = nextAnswer()] {
    // Late, so that who does not wait for the reply misses it.
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    callback({answer.first, ""}, answer.second);
  });
}

CommandResult PerformCommand(std::shared_ptr<::ManagerClient> /*manager*/,
                             const std::string& command, const MessageDict& request,
                             MessageValue& reply) {
  log("PerformCommand and wait " + command + textOf(request));
  const auto [status, answer] = nextAnswer();
  reply = answer;
  return {status, ""};
}

}  // namespace kst::client

namespace kst {

HelperClient::HelperClient(std::string name, LogSink logSink)
    : clientName(std::move(name)), sink(std::move(logSink)) {}

std::shared_ptr<HelperClient> HelperClient::create(const std::string& name, LogSink logSink) {
  log("HelperClient::create " + name);
  return std::shared_ptr<HelperClient>(
      fakes::script().hasHelper ? new HelperClient(name, std::move(logSink)) : nullptr);
}

CommandResult HelperClient::perform(helper::TaskID task, const std::string& command,
                                    MessageDict request, MessageDict& reply) {
  log("HelperClient::perform " + std::to_string(static_cast<int>(task)) + " " + command +
      textOf(request));
  const auto& [status, answer] = fakes::script().helperAnswer;
  reply = answer.dictionary() ? *answer.dictionary() : MessageDict();
  return {status, ""};
}

}  // namespace kst

using fakes::script;

std::int32_t RadioInfo::getRadio() { return logged("getRadio", script().radio); }
std::int32_t RadioInfo::getRadioVendor() { return logged("getRadioVendor", script().radioVendor); }
std::int32_t RadioInfo::getProduct() { return logged("getProduct", script().product); }
bool BuildInfo::isCarrierBuild() { return logged("isCarrierBuild", script().carrierBuild); }
bool BuildInfo::isInternalBuild() { return logged("isInternalBuild", script().internalBuild); }
bool BuildInfo::isVendorBuild() { return logged("isVendorBuild", script().vendorBuild); }
bool BuildInfo::isTraceAllowed() { return logged("isTraceAllowed", script().traceAllowed); }
const char* getprogname() { return logged("getprogname", "ksttool"); }

bool isProcessRunning(const std::string& /*name*/) { return false; }
