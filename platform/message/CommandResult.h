#pragma once

#include <cstdint>
#include <string>

/// How a command of the manager or of the helper service ended.
struct CommandResult {
  /// 0 for success; else one of the codes below or a code of the service's own.
  std::int32_t status = 0;

  /// What happened, for people; may be empty.
  std::string text;
};

namespace kst {

// Given by the client libraries.

/// The manager is not on the bus, or there is no bus.
inline constexpr auto kResultManagerNotRunning = static_cast<std::int32_t>(0xE020E001);
/// The same of the helper service.
inline constexpr auto kResultHelperNotRunning = static_cast<std::int32_t>(0xE020E002);
/// The service or the bus went away, or the time ran out, while the request was out: whether it was
/// performed is unknown.
inline constexpr auto kResultReplyLost = static_cast<std::int32_t>(0xE020E003);
/// The bus's policy does not let this user make the call.
inline constexpr auto kResultAccessDenied = static_cast<std::int32_t>(0xE020E004);
/// The service's reply has not the types that a reply has.
inline constexpr auto kResultMalformedReply = static_cast<std::int32_t>(0xE020E005);
/// Any other failure of the call.
inline constexpr auto kResultCallFailed = static_cast<std::int32_t>(0xE020E006);

// Given by the services of this tree.

/// The service has no such command.
inline constexpr auto kResultUnknownCommand = static_cast<std::int32_t>(0xE020E011);
/// The request lacks something that the command needs, or is larger than a request may be.
inline constexpr auto kResultInvalidRequest = static_cast<std::int32_t>(0xE020E012);
/// The collection did not work; nothing stands under a final name.
inline constexpr auto kResultCollectionFailed = static_cast<std::int32_t>(0xE020E013);
/// The collection is not finished within the time that the request allows; it goes on.
inline constexpr auto kResultStillCollecting = static_cast<std::int32_t>(0xE020E014);
/// The service is about to end and takes no further requests.
inline constexpr auto kResultStopping = static_cast<std::int32_t>(0xE020E015);
/// Too many requests are waiting already; asking again later may work.
inline constexpr auto kResultBusy = static_cast<std::int32_t>(0xE020E016);
/// The device has no room for the logs.
inline constexpr auto kResultNoRoom = static_cast<std::int32_t>(0xE020E017);
/// The collection took longer than it may and was ended.
inline constexpr auto kResultTimeOver = static_cast<std::int32_t>(0xE020E018);
/// No core dump was made, or it vanished before it was collected.
inline constexpr auto kResultNoCoreDump = static_cast<std::int32_t>(0xE020E019);

}  // namespace kst
