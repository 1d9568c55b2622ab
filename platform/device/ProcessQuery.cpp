#include "platform/device/ProcessQuery.h"

#include <cctype>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace {

namespace fs = std::filesystem;

/// The process table holds this much of an executable's name.
constexpr std::size_t kTableNameLength = 15;

/// The file up to its first NUL byte; empty when it cannot be read.
std::string firstText(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::string text;
  std::getline(file, text, '\0');
  return text;
}

/// Whether the process of this folder of /proc runs under `name`. A process that has gone meanwhile
/// does not.
bool runsAs(const fs::path& process, const std::string& name) {
  // "PID (NAME) STATE ...", where NAME may hold anything, parentheses and line feeds too (proc(5)).
  const std::string stat = firstText(process / "stat");
  const std::size_t open = stat.find('(');
  const std::size_t close = stat.rfind(')');
  if (open == std::string::npos || close == std::string::npos || close + 2 >= stat.size()) {
    return false;
  }
  const char state = stat[close + 2];
  if (state == 'Z' || state == 'X') {
    return false;
  }
  const std::string tableName = stat.substr(open + 1, close - open - 1);
  if (tableName != name.substr(0, kTableNameLength)) {
    return false;
  }
  const bool isWhole = tableName.size() < kTableNameLength;
  return isWhole || fs::path(firstText(process / "cmdline")).filename() == name;
}

}  // namespace

bool isProcessRunning(const std::string& name) {
  std::error_code error;
  for (fs::directory_iterator entry("/proc", error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string folder = entry->path().filename();
    if (std::isdigit(static_cast<unsigned char>(folder.front())) && runsAs(entry->path(), name)) {
      return true;
    }
  }
  return false;
}
