#include "simulator/ControlPipe.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>

#include "collection/Folder.h"
#include "platform/text/SplitString.h"
#include "support/FileOperations.h"

namespace simulator {

collection::Failure ControlPipe::open(const std::string& path) {
  const std::string folder = kst::support::parentDirectory(path);
  if (auto failure = collection::makeFolder(folder)) {
    return failure;
  }
  if (mkfifo(path.c_str(), 0600) != 0 && errno != EEXIST) {
    return collection::callFailed("mkfifo", path);
  }
  reader = kst::support::Descriptor(
      kst::support::openPath(path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC, 0));
  if (!reader) {
    return collection::callFailed("open", path);
  }
  struct stat status = {};
  if (fstat(reader.get(), &status) != 0 || !S_ISFIFO(status.st_mode)) {
    return path + " is no FIFO";  // anything else always has something to be read
  }
  writer = kst::support::Descriptor(
      kst::support::openPath(path, O_WRONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC, 0));
  if (!writer) {
    return collection::callFailed("open", path);
  }
  return {};
}

std::vector<std::string> ControlPipe::wait(std::chrono::milliseconds time) const {
  pollfd end{.fd = reader.get(), .events = POLLIN, .revents = 0};
  if (poll(&end, 1, static_cast<int>(time.count())) <= 0) {
    return {};
  }
  // A request is at most PIPE_BUF bytes long and was written in one piece, and so it is read.
  std::array<char, PIPE_BUF> buffer;
  std::string text;
  ssize_t count = 0;
  while ((count = read(reader.get(), buffer.data(), buffer.size())) > 0) {
    text.append(buffer.data(), static_cast<std::size_t>(count));
  }
  return splitString(text, '\n');
}

}  // namespace simulator
