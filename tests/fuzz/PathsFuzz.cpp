// Paths taken apart, free names and numbered siblings.

#include <fuzzer/FuzzedDataProvider.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <filesystem>
#include <set>
#include <string_view>

#include "support/FileOperations.h"
#include "support/LogDirectory.h"
#include "tests/fuzz/Check.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using namespace kst::support;

bool isAlnum(char byte) { return std::isalnum(static_cast<unsigned char>(byte)) != 0; }

void checkParts(const std::string& path) {
  const std::string stripped = withoutTrailingSlashes(path);
  const std::string last = lastPathComponent(path);
  const std::string parent = parentDirectory(path);
  if (path.find_first_not_of('/') == std::string::npos) {
    check(last.empty() && parent.empty() && stripped == path, "nothing but slashes: " + path);
    return;
  }
  check(!last.empty() && last.find('/') == std::string::npos, "a component: " + last);
  check(parent + last == stripped, "the parts make up " + stripped);
  check(parent.empty() || parent.back() == '/', "what stands before it ends in /: " + parent);
  check(path.compare(0, stripped.size(), stripped) == 0 && stripped.back() != '/' &&
            path.find_first_not_of('/', stripped.size()) == std::string::npos,
        "only slashes go: " + path);
}

std::string firstFree(const std::set<std::string>& taken, const std::string& name, std::size_t at) {
  std::string candidate = name;
  for (int number = 1; taken.contains(candidate); ++number) {
    candidate = name.substr(0, at) + "-" + std::to_string(number) + name.substr(at);
  }
  return candidate;
}

/// The sibling with the highest number, where the only special character of `base` is the dot.
std::string latest(const std::set<std::string>& names, const std::string& base) {
  std::string found;
  std::uint32_t highest = 0;
  for (const std::string& name : names) {
    const std::size_t dash = std::min(base.size(), name.size());
    const bool isBase = std::equal(
        base.begin(), base.end(), name.begin(), name.begin() + static_cast<std::ptrdiff_t>(dash),
        [](char wanted, char byte) { return wanted == byte || (wanted == '.' && byte != '\n'); });
    if (!isBase || dash == name.size() || name[dash] != '-' ||
        !std::all_of(name.begin() + static_cast<std::ptrdiff_t>(dash) + 1, name.end(), isAlnum)) {
      continue;
    }
    const std::string_view pieces =
        std::string_view(name).substr(0, name.find_last_not_of('-') + 1);
    const std::string piece(pieces.substr(pieces.rfind('-') + 1));  // npos + 1 is the front
    highest =
        std::max(highest, static_cast<std::uint32_t>(std::strtoll(piece.c_str(), nullptr, 0)));
    found = base + "-" + std::to_string(highest) + "/";
  }
  return found;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  static const TemporaryDirectory folder;
  FuzzedDataProvider data(bytes, size);
  checkParts(data.ConsumeRandomLengthString(64));

  // Few names, so that they meet.
  static constexpr std::array kParts{"a", "b", ".", "-", "-1", "-2", "-0x10", "-010", "_", "\n"};
  const auto makeName = [&data] {
    std::string name = "a";
    for (int parts = data.ConsumeIntegralInRange(0, 3); parts > 0; --parts) {
      name += data.PickValueInArray(kParts);
    }
    return name;
  };
  std::set<std::string> names;
  for (int left = data.ConsumeIntegralInRange(0, 6); left > 0; --left) {
    const std::string name = makeName();
    if (names.insert(name).second) {
      check(mknod((folder / name).c_str(), S_IFREG | 0600, 0) == 0, "a file is made");
    }
  }
  const std::string name = makeName();
  const std::string path = folder / name;
  const std::string start = folder / "";
  const std::size_t suffix = std::min(name.find_first_of(".\n"), name.size());
  const bool isRefused = names.contains(name) && name.find('\n') != std::string::npos;
  check(uniquePath(path) == start + firstFree(names, name, name.size()), "free beside " + name);
  check(uniquePathKeepingSuffix(path) == (isRefused ? "" : start + firstFree(names, name, suffix)),
        "free with its suffix beside " + name);
  const std::string highest = latest(names, name);
  check(latestNumberedPath(path + "/") == (highest.empty() ? "" : start + highest),
        "the highest number of " + name + " is " + highest);
  check(pruneDirectory(folder.path, 0) && std::filesystem::is_empty(folder.path),
        "everything is pruned");
  return 0;
}
