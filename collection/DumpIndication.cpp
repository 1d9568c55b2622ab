#include "collection/DumpIndication.h"

#include <fcntl.h>

#include <utility>

#include "collection/Folder.h"
#include "support/Descriptor.h"
#include "support/FileOperations.h"

namespace collection {

DumpIndication::DumpIndication(std::string path) : file(std::move(path)) {}

DumpIndication::~DumpIndication() { kst::support::removeFile(file); }

Failure DumpIndication::raise() const {
  kst::support::removeFile(file);
  if (auto failure = makeFolder(kst::support::parentDirectory(file))) {
    return failure;
  }
  const kst::support::Descriptor created(
      kst::support::openPath(file, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
  if (!created) {
    return callFailed("open", file);
  }
  return {};
}

}  // namespace collection
