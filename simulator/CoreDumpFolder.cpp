#include "simulator/CoreDumpFolder.h"

#include <fcntl.h>

#include <algorithm>
#include <random>
#include <utility>
#include <vector>

#include "collection/Folder.h"
#include "logdump/TimestampSet.h"
#include "support/Descriptor.h"
#include "support/FileOperations.h"
#include "support/LogDirectory.h"

namespace simulator {
namespace {

constexpr std::size_t kDumpSize = 1'048'576;
constexpr std::size_t kDumpsKept = 3;

/// What stands in the simulated memory: as hard to compress as the real thing.
std::string memoryImage() {
  std::string image(kDumpSize, '\0');
  std::mt19937 random(std::random_device{}());
  for (char& byte : image) {
    byte = static_cast<char>(random());
  }
  return image;
}

}  // namespace

CoreDumpFolder::CoreDumpFolder(std::string path)
    : folder(std::move(path)), unfinished(folder + "/.unfinished") {}

collection::Failure CoreDumpFolder::open() const {
  if (auto failure = collection::makeFolder(folder)) {
    return failure;
  }
  kst::support::removeFile(unfinished);
  return {};
}

collection::Failure CoreDumpFolder::write(const std::string& title) const {
  const std::string time = TimestampSet().toString(0, kTimestampDate | kTimestampMilliseconds);
  const std::string finished = kst::support::uniquePath(folder + "/core-" + time + ".bin");
  const std::string dump = "VEXILD CORE DUMP " + time + "\n" + title + "\n" + memoryImage();

  const kst::support::Descriptor file(
      kst::support::openPath(unfinished, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!file) {
    return collection::callFailed("open", unfinished);
  }
  if (!kst::support::writeFully(file.get(), dump.data(), dump.size())) {
    return collection::callFailed("write", unfinished);
  }
  if (!kst::support::renamePath(unfinished, finished)) {
    return collection::callFailed("rename", finished);
  }
  removeOldDumps();
  return {};
}

void CoreDumpFolder::removeOldDumps() const {
  std::vector<std::string> names;
  kst::support::listDirectory(folder, names);
  std::erase_if(names, [](const std::string& name) { return name.starts_with('.'); });
  // Names in order are times in order.
  std::sort(names.begin(), names.end());
  for (std::size_t index = 0; index + kDumpsKept < names.size(); ++index) {
    kst::support::removeFile(folder + '/' + names[index]);
  }
}

}  // namespace simulator
