#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <deque>
#include <sstream>
#include <string>
#include <utility>

#include "platform/message/MessageDict.h"

/// The stand-ins for platform/client and platform/device answer from a script, and write down what
/// they are asked.
namespace fakes {

/// How a service answers one command: status and reply.
using Answer = std::pair<std::int32_t, MessageValue>;

inline MessageDict dictOf(const std::string& key, MessageValue value) {
  MessageDict dict;
  dict.set(key, std::move(value));
  return dict;
}

/// What the device and its services do.
struct Script {
  std::int32_t radio = 1;
  std::int32_t radioVendor = 0;
  std::int32_t product = 0;
  bool carrierBuild = false;
  bool internalBuild = false;
  bool vendorBuild = false;
  bool traceAllowed = false;
  std::deque<Answer> managerAnswers;  // one for each command; a command too many throws
  bool keepsHandlers = true;          // whether the manager client keeps event handlers
  Answer helperAnswer;
  bool hasHelper = true;
  std::ostream* log = nullptr;  // gets what is asked, one line each: the operation, its arguments
};

/// The script in force. To be changed while no product code runs.
Script& script();

/// Delivers an event on the queue of each handler, and returns once all handlers have.
void sendEvent(const MessageValue& payload);

/// A test with a script of its own, and no event handlers at first.
class Test : public testing::Test {
 protected:
  Test() { script().log = &log; }
  ~Test() override;

  /// What was asked since the last call of this.
  std::string takeLog() { return std::exchange(log, {}).str(); }

 private:
  std::ostringstream log;
};

}  // namespace fakes
