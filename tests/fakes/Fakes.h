#pragma once

#include <cstdint>
#include <deque>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/message/MessageDict.h"
#include "platform/tasks/TaskGroup.h"

/// The stand-ins for platform/client and platform/device answer from a script, and write down what
/// they are asked.
namespace fakes {

/// How a service answers one command.
struct Answer {
  Answer() = default;
  Answer(std::int32_t answerStatus, MessageValue answerReply)
      : status(answerStatus), reply(std::move(answerReply)) {}

  std::int32_t status = 0;
  MessageValue reply;
};

/// What the device and its services do.
struct Script {
  std::int32_t radio = 1;
  std::int32_t radioVendor = 0;
  std::int32_t product = 0;
  bool carrierBuild = false;
  bool internalBuild = false;
  bool vendorBuild = false;
  bool traceAllowed = false;
  std::set<std::string> processes;
  std::deque<Answer> managerAnswers;  // one for each command; a command too many throws
  TaskGroup answersWaitFor;           // if not empty, replies wait on the queue for this
  bool keepsHandlers = true;          // whether the manager client keeps event handlers
  Answer helperAnswer;
  bool hasHelper = true;
  bool echoesLog = false;  // the log goes to standard error too
};

/// The script in force. To be changed while no product code runs.
Script& script();

/// What was asked since the last call of this, one line each: the operation and its arguments.
std::vector<std::string> takeLog();

/// Delivers an event on the queue of every manager client, and returns once the handlers have.
void sendEvent(const MessageValue& payload);

}  // namespace fakes
