#include "simulator/RotatingLog.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "collection/DevicePaths.h"
#include "collection/Folder.h"
#include "support/FileOperations.h"
#include "support/RecordLock.h"

namespace simulator {
namespace {

/// Holds the exclusive record lock on a file.
class ExclusiveLock {
 public:
  explicit ExclusiveLock(int lockDescriptor) : descriptor(lockDescriptor) { set(F_WRLCK); }
  ExclusiveLock(const ExclusiveLock&) = delete;
  ExclusiveLock& operator=(const ExclusiveLock&) = delete;
  ~ExclusiveLock() { set(F_UNLCK); }

 private:
  void set(short type) const {
    while (!kst::support::setRecordLock(descriptor, F_SETLKW, type) && errno == EINTR) {
    }
  }

  int descriptor;
};

std::size_t sizeOf(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0 ? static_cast<std::size_t>(status.st_size) : 0;
}

}  // namespace

RotatingLog::RotatingLog(std::string logFolder, const std::string& name, Limits logLimits)
    : folder(std::move(logFolder)), file(folder + "/" + name), limits(logLimits) {}

collection::Failure RotatingLog::open() {
  if (auto failure = collection::makeFolder(folder)) {
    return failure;
  }
  const std::string path = collection::lockFileOf(folder);
  lockFile =
      kst::support::Descriptor(kst::support::openPath(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (!lockFile) {
    return collection::callFailed("open", path);
  }
  return {};
}

void RotatingLog::append(const std::string& line) {
  const ExclusiveLock lock(lockFile.get());
  const std::string text = line + "\n";
  if (sizeOf(file) + text.size() > limits.fileSize) {
    rotate();
  }
  const kst::support::Descriptor log(
      kst::support::openPath(file, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
  if (log) {
    kst::support::writeFully(log.get(), text.data(), text.size());
  }
}

/// The oldest log is replaced by the one before it.
void RotatingLog::rotate() {
  for (unsigned age = limits.olderFiles; age > 0; --age) {
    kst::support::renamePath(olderFile(age - 1), olderFile(age));
  }
}

std::string RotatingLog::olderFile(unsigned age) const {
  return age == 0 ? file : file + "." + std::to_string(age);
}

}  // namespace simulator
