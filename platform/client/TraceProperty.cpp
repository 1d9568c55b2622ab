#include "platform/client/TraceProperty.h"

#include <optional>
#include <string>

#include "platform/client/Constants.h"
#include "platform/device/DeviceConfig.h"
#include "platform/message/MessageDict.h"

namespace kst {

MessageDict answerTraceProperty(const MessageDict& request) {
  MessageDict reply;
  const std::string key =
      "trace." + request.text(kKeyTraceName, "") + "." + request.text(kKeyTracePropertyName, "");
  if (const std::optional<std::string> value = DeviceConfig::load().text(key)) {
    reply.set(kKeyTracePropertyValue, *value);
  }
  return reply;
}

}  // namespace kst
