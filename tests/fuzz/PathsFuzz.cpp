// Paths taken apart, free names and numbered siblings.

#include <fuzzer/FuzzedDataProvider.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <set>

#include "support/FileOperations.h"
#include "support/LogDirectory.h"
#include "tests/fuzz/Check.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using namespace kst::support;

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
  check(path.starts_with(stripped) && stripped.back() != '/' &&
            path.find_first_not_of('/', stripped.size()) == std::string::npos,
        "only slashes go: " + path);
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
  const std::string unique = uniquePath(path);
  const std::string keeping = uniquePathKeepingSuffix(path);
  check(unique.starts_with(path) && !pathExists(unique), "free beside " + name);
  check(keeping.empty() ? names.contains(name) && name.find('\n') != std::string::npos
                        : !pathExists(keeping) && keeping.size() == unique.size(),
        "free with its suffix beside " + name);
  const std::string latest = latestNumberedPath(path + "/");
  check(latest.empty() || latest.starts_with(path + "-"), "a sibling of " + name + ": " + latest);
  check(pruneDirectory(folder.path, 0) && std::filesystem::is_empty(folder.path),
        "everything is pruned");
  return 0;
}
