#include "simulator/TemporaryFolder.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <system_error>

#include "support/FileOperations.h"

namespace simulator {
namespace {

constexpr std::size_t kLongestPath = 80;

const char* variable(const char* name) {
  return std::getenv(name);  // NOLINT(concurrency-mt-unsafe): the process has one thread
}

std::string makeFolder() {
  for (const char* parent : {variable("TMPDIR"), variable("XDG_RUNTIME_DIR"), "/tmp"}) {
    if (parent == nullptr || *parent != '/') {
      continue;
    }
    std::string path = std::string(parent) + "/kst-simulator-XXXXXX";
    if (path.size() <= kLongestPath && mkdtemp(path.data()) != nullptr) {
      return path;
    }
  }
  throw std::system_error(errno, std::generic_category(), "temporary folder");
}

/// Waits until nobody holds the other end of `lifeline`, and removes `folder`.
[[noreturn]] void removeWhenUnused(const std::string& folder, int lifeline) {
  setsid();
  // Whoever reads the simulator's output must not have to wait for this process.
  const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
  for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    dup2(nothing, standard);
  }
  char byte = 0;
  while (read(lifeline, &byte, 1) < 0 && errno == EINTR) {
  }
  kst::support::removeTree(folder);
  _exit(0);
}

}  // namespace

TemporaryFolder::TemporaryFolder() : folder(makeFolder()) {
  remover = fork();
  if (remover < 0) {
    throw std::system_error(errno, std::generic_category(), "fork");
  }
  if (remover == 0) {
    lifelinePipe.writer.close();
    removeWhenUnused(folder, lifelinePipe.reader.get());
  }
}

std::string TemporaryFolder::addFile(const std::string& name, std::string_view text) const {
  std::string path = folder + "/" + name;
  if (!(std::ofstream(path) << text << std::flush)) {
    throw std::system_error(errno, std::generic_category(), path);
  }
  return path;
}

TemporaryFolder::~TemporaryFolder() {
  lifelinePipe.writer.close();
  while (waitpid(remover, nullptr, 0) < 0 && errno == EINTR) {
  }
}

}  // namespace simulator
