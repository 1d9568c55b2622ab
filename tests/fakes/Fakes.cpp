#include "tests/fakes/Fakes.h"

#include <pthread.h>

#include <array>
#include <iostream>
#include <memory>
#include <mutex>

#include "platform/client/HelperClient.h"
#include "platform/client/ManagerClient.h"
#include "platform/device/BuildInfo.h"
#include "platform/device/ProcessQuery.h"
#include "platform/device/ProgramName.h"
#include "platform/device/RadioInfo.h"

class ManagerClient {
 public:
  /// Runs `work` on the queue and waits for its end.
  void runOnQueue(const std::function<void()>& work) const {
    const TaskGroup done = TaskGroup::create();
    queue.submit([work, hold = TaskGroupHold(done)] { work(); });
    done.wait();
  }

  TaskQueue queue;
  std::vector<kst::client::EventHandler> handlers;
};

namespace {

struct State {
  fakes::Script script;
  std::vector<std::shared_ptr<ManagerClient>> managers;
  std::mutex mutex;
  std::vector<std::string> log;  // guarded by `mutex`
};

/// Never destroyed: threads of the product may outlive `main`.
State& state() {
  static auto& only = *new State;
  return only;
}

void log(const std::string& line) {
  const std::lock_guard lock(state().mutex);
  state().log.push_back(line);
  if (state().script.echoesLog) {
    std::cerr << line << std::endl;
  }
}

template <typename Value>
Value logged(const char* question, Value answer) {
  log(question);
  return answer;
}

std::string textOf(const MessageValue& value) {
  if (value.text()) {
    return "\"" + *value.text() + "\"";
  }
  if (value.boolean()) {
    return *value.boolean() ? "true" : "false";
  }
  return value.integer() ? std::to_string(*value.integer()) : "null";
}

std::string textOf(const MessageDict& request) {
  std::string text;
  for (const auto& [key, value] : request.entries()) {
    text += " " + key + "=" + textOf(value);
  }
  return text;
}

fakes::Answer nextAnswer() {
  fakes::Answer next = fakes::script().managerAnswers.at(0);
  fakes::script().managerAnswers.pop_front();
  return next;
}

}  // namespace

fakes::Script& fakes::script() { return state().script; }

std::vector<std::string> fakes::takeLog() {
  const std::lock_guard lock(state().mutex);
  return std::exchange(state().log, {});
}

void fakes::sendEvent(const MessageValue& payload) {
  for (const auto& manager : state().managers) {
    manager->runOnQueue([&] {
      for (const kst::client::EventHandler& handler : manager->handlers) {
        handler(payload, TaskGroup());
      }
    });
  }
}

namespace kst::client {

std::shared_ptr<::ManagerClient> CreateManager(const std::string& name, const TaskQueue& queue) {
  auto manager = std::make_shared<::ManagerClient>();
  manager->queue = queue;
  manager->runOnQueue([&] {
    std::array<char, 16> thread{};
    pthread_getname_np(pthread_self(), thread.data(), thread.size());
    log("CreateManager " + name + " on " + thread.data());
  });
  state().managers.push_back(manager);
  return manager;
}

void RegisterEventHandler(std::shared_ptr<::ManagerClient> manager, const std::string& event,
                          EventHandler handler) {
  log("RegisterEventHandler " + event);
  if (fakes::script().keepsHandlers) {
    manager->handlers.push_back(handler);
  }
}

void EventsOff(std::shared_ptr<::ManagerClient> /*manager*/) { log("EventsOff"); }

void EventsOn(std::shared_ptr<::ManagerClient> /*manager*/) { log("EventsOn"); }

void PerformCommand(std::shared_ptr<::ManagerClient> manager, const std::string& command,
                    ReplyCallback callback, const MessageDict& request) {
  log("PerformCommand " + command + textOf(request));
  manager->queue.submit([callback = std::move(callback), answer = nextAnswer(),
                         gate = fakes::script().answersWaitFor] {
    if (gate) {
      gate.wait();
    }
    callback({answer.status, ""}, answer.reply);
  });
}

CommandResult PerformCommand(std::shared_ptr<::ManagerClient> /*manager*/,
                             const std::string& command, const MessageDict& request,
                             MessageValue& reply) {
  log("PerformCommand and wait " + command + textOf(request));
  const fakes::Answer answer = nextAnswer();
  reply = answer.reply;
  return {answer.status, ""};
}

}  // namespace kst::client

namespace kst {

HelperClient::HelperClient(std::string name, LogSink logSink)
    : clientName(std::move(name)), sink(std::move(logSink)) {}

std::shared_ptr<HelperClient> HelperClient::create(const std::string& name, LogSink logSink) {
  log("HelperClient::create " + name + (logSink ? " with a sink" : ""));
  return std::shared_ptr<HelperClient>(
      fakes::script().hasHelper ? new HelperClient(name, std::move(logSink)) : nullptr);
}

CommandResult HelperClient::perform(helper::TaskID task, const std::string& command,
                                    MessageDict request, MessageDict& reply) {
  log("HelperClient::perform " + std::to_string(static_cast<int>(task)) + " " + command +
      textOf(request));
  const fakes::Answer& answer = fakes::script().helperAnswer;
  reply = answer.reply.dictionary() ? *answer.reply.dictionary() : MessageDict();
  return {answer.status, ""};
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

bool isProcessRunning(const std::string& name) {
  log("isProcessRunning " + name);
  return script().processes.contains(name);
}
