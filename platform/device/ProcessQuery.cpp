#include "platform/device/ProcessQuery.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <cstring>
#include <memory>
#include <string>

namespace {

/// The process table holds this much of an executable's name.
constexpr std::size_t kTableNameLength = 15;

struct DirectoryCloser {
  void operator()(DIR* directory) const { closedir(directory); }
};

/// The beginning of a process's file in the process table: empty when it cannot be read, as when
/// the process has gone meanwhile.
std::string readStart(int table, const std::string& path) {
  const int file = openat(table, path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) {
    return {};
  }
  // A name may be as long as a file's, the path to it longer.
  std::array<char, 8192> buffer;
  const ssize_t count = read(file, buffer.data(), buffer.size());
  close(file);
  return count > 0 ? std::string(buffer.data(), static_cast<std::size_t>(count)) : std::string();
}

/// Whether the process is more than an entry in the table.
bool isAlive(int table, const std::string& process) {
  // "PID (NAME) STATE ...", where NAME may hold anything, parentheses and line feeds too (proc(5)).
  const std::string stat = readStart(table, process + "/stat");
  const std::size_t nameEnd = stat.rfind(')');
  if (nameEnd == std::string::npos || nameEnd + 2 >= stat.size()) {
    return false;
  }
  const char state = stat[nameEnd + 2];
  return state != 'Z' && state != 'X';
}

/// The name of the executable by the process's own arguments.
std::string nameInArguments(int table, const std::string& process) {
  std::string arguments = readStart(table, process + "/cmdline");
  arguments.resize(std::strlen(arguments.c_str()));
  return arguments.substr(arguments.rfind('/') + 1);
}

bool runsAs(int table, const std::string& process, const std::string& name) {
  // One small file for most processes: the others take the kernel longer to make.
  if (readStart(table, process + "/comm") != name.substr(0, kTableNameLength) + "\n") {
    return false;
  }
  const bool isWhole = name.size() < kTableNameLength;
  return isAlive(table, process) && (isWhole || nameInArguments(table, process) == name);
}

}  // namespace

bool isProcessRunning(const std::string& name) {
  const std::unique_ptr<DIR, DirectoryCloser> table(opendir("/proc"));
  if (!table) {
    return false;
  }
  // NOLINTNEXTLINE(concurrency-mt-unsafe): its own stream
  while (const dirent* entry = readdir(table.get())) {
    const std::string process = entry->d_name;
    if (std::isdigit(static_cast<unsigned char>(process.front())) != 0 &&
        runsAs(dirfd(table.get()), process, name)) {
      return true;
    }
  }
  return false;
}
