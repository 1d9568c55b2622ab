#pragma once

#include <optional>
#include <string>

namespace simulator {

/// The root of the device's file tree from a daemon's command line, `[--root DIR]`, "/" if it is
/// not given. On any other command line usage goes to standard error, and there is no root.
std::optional<std::string> readDaemonRoot(int argc, const char* const* argv);

}  // namespace simulator
