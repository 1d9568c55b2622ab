#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "simulator/Pipe.h"

namespace simulator {

/// A folder with a short path that is removed when this object goes and no process works in it any
/// more, also if the simulator is killed: a process of its own waits for that and removes it.
class TemporaryFolder {
 public:
  /// Throws std::system_error when there is nowhere to put it. REQUIRES: the process has one
  /// thread.
  TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  /// Waits until the folder is removed.
  ~TemporaryFolder();

  /// At most 80 bytes long, so that a socket in the folder has a valid address.
  [[nodiscard]] const std::string& path() const { return folder; }

  /// Writes a new file `name` of this text in the folder, and returns its path. Throws
  /// std::system_error.
  [[nodiscard]] std::string addFile(const std::string& name, std::string_view text) const;

  /// A descriptor that the processes that work in the folder keep open.
  [[nodiscard]] int lifeline() const { return lifelinePipe.writer.get(); }

 private:
  std::string folder;
  Pipe lifelinePipe;  // its writing end closes when nobody works in the folder any more
  pid_t remover = -1;
};

}  // namespace simulator
