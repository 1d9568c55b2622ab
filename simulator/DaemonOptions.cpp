#include "simulator/DaemonOptions.h"

#include <iostream>
#include <string_view>

namespace simulator {

std::optional<std::string> readDaemonRoot(int argc, const char* const* argv) {
  if (argc == 1) {
    return "/";
  }
  if (argc == 3 && std::string_view(argv[1]) == "--root") {
    return argv[2];
  }
  std::cerr << "usage: " << argv[0] << " [--root DIR]" << std::endl;
  return {};
}

}  // namespace simulator
