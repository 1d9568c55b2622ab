#pragma once

#include <cstdint>
#include <string>

#include "platform/message/MessageDict.h"

namespace dbus {

/// One call of `Perform`.
struct Command {
  std::string client;
  std::int32_t task = 0;  ///< not sent to a peer that takes no task
  std::string name;
  MessageDict request;
};

}  // namespace dbus
