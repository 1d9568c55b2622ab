#include "simulator/SimulatorOptions.h"

#include <initializer_list>
#include <string_view>

namespace simulator {
namespace {

bool isPart(const std::string& name) {
  for (const char* part : {kManagerPart, kHelperPart, kCorvendPart, kVexildPart}) {
    if (name == part) {
      return true;
    }
  }
  return false;
}

bool readOption(std::string_view option, const std::string& value, SimulatorOptions& options) {
  if (value.empty()) {
    return false;
  }
  if (option == "--conf") {
    options.configuration = value;
    return true;
  }
  if (option == "--root") {
    options.root = value;
    return true;
  }
  if (option == "--absent" && isPart(value)) {
    options.absent.insert(value);
    return true;
  }
  return false;
}

}  // namespace

std::optional<SimulatorOptions> readSimulatorOptions(int argc, const char* const* argv) {
  SimulatorOptions options;
  for (int index = 1; index < argc; index += 2) {
    if (argv[index] == std::string_view("--")) {
      options.command.assign(argv + index + 1, argv + argc);
      return options;
    }
    if (index + 1 == argc || !readOption(argv[index], argv[index + 1], options)) {
      return {};
    }
  }
  return options;
}

}  // namespace simulator
