#pragma once

#include <cstdint>

#include "platform/message/CommandResult.h"

namespace dbus {

/// A service as it stands on the system bus: one object with the method `Perform`.
struct Peer {
  const char* service;
  const char* path;
  const char* interface;

  /// `Perform` takes the number of a task behind the client's name.
  bool takesTask;

  /// The object has the property kServerStateProperty.
  bool hasServerState;

  /// The status of a call while the service is not on the bus.
  std::int32_t notRunning;
};

inline constexpr const char* kServerStateProperty = "ServerState";

inline constexpr Peer kManager{
    "org.kestrane.Manager1",      "/org/kestrane/Manager1", "org.kestrane.Manager1", false, true,
    kst::kResultManagerNotRunning};
inline constexpr Peer kHelper{
    "org.kestrane.Helper1",      "/org/kestrane/Helper1", "org.kestrane.Helper1", true, false,
    kst::kResultHelperNotRunning};

}  // namespace dbus
