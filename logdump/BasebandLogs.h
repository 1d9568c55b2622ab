#pragma once

#include <list>
#include <memory>
#include <string>

#include "platform/client/ManagerClient.h"

/// Has the baseband logs collected, by the manager or, while that is not running, with what the
/// helper service knows, and prints where they lie. `words` are those of parseDumpArguments. Blocks
/// until the services have answered. False only when the manager cannot tell whether baseband logs
/// are enabled.
bool collectBasebandLogs(const std::shared_ptr<ManagerClient>& manager,
                         std::list<std::string> words);

/// The timestamp that names the helper service's last collection; empty when this build does not
/// ask the helper or it gives none.
std::string queryHelperTimestamp();
