#include "platform/dbus/Answer.h"

#include <utility>

namespace dbus {

Answer::Answer(AnswerReceiver answerReceiver, CommandResult resultIfDropped)
    : receiver(std::move(answerReceiver)), ifDropped(std::move(resultIfDropped)) {}

Answer::Answer(Answer&& other) noexcept
    : receiver(std::exchange(other.receiver, nullptr)), ifDropped(std::move(other.ifDropped)) {}

Answer::~Answer() { send(ifDropped); }

void Answer::send(CommandResult result, std::optional<MessageValue> reply) {
  if (const AnswerReceiver answered = std::exchange(receiver, nullptr)) {
    answered(std::move(result), std::move(reply));
  }
}

}  // namespace dbus
