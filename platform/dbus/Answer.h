#pragma once

#include <functional>
#include <optional>

#include "platform/message/CommandResult.h"
#include "platform/message/MessageDict.h"

namespace dbus {

/// Gets nothing as the reply where there is none from the service: the result is then not its own.
using AnswerReceiver = std::function<void(CommandResult result, std::optional<MessageValue> reply)>;

/// The duty to answer a call exactly once: what nobody has answered when this goes is answered with
/// a fixed result. Belongs to one thread at a time.
class Answer {
 public:
  Answer(AnswerReceiver answerReceiver, CommandResult resultIfDropped);
  Answer(Answer&& other) noexcept;
  Answer(const Answer&) = delete;
  Answer& operator=(const Answer&) = delete;
  Answer& operator=(Answer&&) = delete;
  ~Answer();

  /// Answers, and lets go of the receiver. Does nothing when it has answered before.
  void send(CommandResult result, std::optional<MessageValue> reply = std::nullopt);

 private:
  AnswerReceiver receiver;  // empty once answered
  CommandResult ifDropped;
};

}  // namespace dbus
