#pragma once

#include <cstdint>

// The words that the manager and the helper service understand. The texts travel on the bus: a
// change breaks every service.

namespace kst {

// Commands of the manager.
inline constexpr const char* kCommandTraceDumpState = "TraceDumpState";
inline constexpr const char* kCommandGetTraceProperty = "GetTraceProperty";

// Events of the manager, their payload and the server states.
inline constexpr const char* kEventServerStateChange = "ServerStateChange";
inline constexpr const char* kKeyServerState = "ServerState";
inline constexpr const char* kServerStateStarting = "Starting";
inline constexpr const char* kServerStateStarted = "Started";
inline constexpr const char* kServerStateStopping = "Stopping";
inline constexpr const char* kServerStateStopped = "Stopped";

// Requests of kCommandTraceDumpState and the reply to them.
inline constexpr const char* kKeyTraceAction = "TraceAction";
inline constexpr const char* kCollectTelephonyLogs = "CollectTelephonyLogs";
inline constexpr const char* kCollectTelephonyLogsWithCoredump = "CollectTelephonyLogsWithCoredump";
inline constexpr const char* kCollectBasebandLogs = "CollectBasebandLogs";
inline constexpr const char* kKeyTraceDumpStateReason = "TraceDumpStateReason";
inline constexpr const char* kKeyTraceDumpStatePerformCompression =
    "TraceDumpStatePerformCompression";
inline constexpr const char* kKeyBasebandResetType = "BasebandResetType";
inline constexpr const char* kBasebandResetTypeHard = "Hard";
inline constexpr const char* kKeyBasebandResetSubType = "BasebandResetSubType";
inline constexpr const char* kBasebandResetSubTypeOtherErrors = "OtherErrors";
inline constexpr const char* kKeyBasebandResetReason = "BasebandResetReason";
inline constexpr const char* kKeyTimestampString = "TimestampString";

// Requests of kCommandGetTraceProperty and the reply to them.
inline constexpr const char* kKeyTraceName = "TraceName";
inline constexpr const char* kTraceBaseband = "BasebandTrace";
inline constexpr const char* kKeyTracePropertyName = "TracePropertyName";
inline constexpr const char* kKeyTraceEnabled = "Enabled";
inline constexpr const char* kKeyTracePropertyValue = "TracePropertyValue";
inline constexpr const char* kUnknown = "Unknown";

namespace helper {

/// The helper service's tasks, by the numbers that travel on the bus.
enum class TaskID : std::int32_t { kSyscollect = 5 };

inline constexpr const char* kCommandSyscollectStatus = "SyscollectStatus";
/// How long the helper may take, in milliseconds.
inline constexpr const char* kKeyTimeout = "Timeout";
inline constexpr const char* kKeyTimestampString = "TimestampString";

}  // namespace helper
}  // namespace kst
