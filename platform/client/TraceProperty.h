#pragma once

class MessageDict;

namespace kst {

/// Answers a request of kCommandGetTraceProperty from the device configuration (key
/// `trace.<TraceName>.<Property>`). The reply lacks kKeyTracePropertyValue when the device does not
/// have the property. For the manager itself, and for its client while the manager is down.
MessageDict answerTraceProperty(const MessageDict& request);

}  // namespace kst
