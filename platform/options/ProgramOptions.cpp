#include "platform/options/ProgramOptions.h"

#include <cstdlib>
#include <iostream>
#include <string_view>

namespace {

constexpr int kWrongUsage = 2;

int print(const std::string& program, const std::string& text) {
  std::cout << text << std::flush;
  if (std::cout) {
    return EXIT_SUCCESS;
  }
  std::cerr << program << ": standard output cannot be written" << std::endl;
  return EXIT_FAILURE;
}

}  // namespace

std::optional<int> answerInformation(int argc, const char* const* argv, const std::string& program,
                                     const std::string& help) {
  for (int index = 1; index < argc; index += 2) {
    const std::string_view option = argv[index];
    if (option == "--help") {
      return print(program, help);
    }
    if (option == "--version") {
      return print(program, program + " " + KST_VERSION + "\n");
    }
    if (option == "--") {
      break;
    }
  }
  return {};
}

DaemonOptions readDaemonOptions(int argc, const char* const* argv, const std::string& program,
                                const std::string& purpose) {
  const std::string usage = "usage: " + program + " [--root DIR | --help | --version]\n";
  const std::string help = usage + purpose +
                           "\n\n"
                           "  --root DIR  the file tree of the device, instead of /\n"
                           "  --help      prints this\n"
                           "  --version   prints the version\n";
  if (const auto status = answerInformation(argc, argv, program, help)) {
    return {.root = {}, .exitStatus = *status};
  }
  std::string root = "/";
  for (int index = 1; index < argc; index += 2) {
    if (index + 1 == argc || std::string_view(argv[index]) != "--root" ||
        *argv[index + 1] == '\0') {
      std::cerr << usage << std::flush;
      return {.root = {}, .exitStatus = kWrongUsage};
    }
    root = argv[index + 1];
  }
  return {.root = root};
}
