#include "support/LogDirectory.h"

#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <locale>
#include <system_error>
#include <utility>

#include "platform/text/SplitString.h"
#include "support/DirectoryStream.h"
#include "support/FileOperations.h"
#include "support/TreeRemoval.h"

namespace kst::support {

namespace {

std::string numbered(const std::string& name, uint32_t number) {
  return name + '-' + std::to_string(number);
}

/// The first of head-1tail, head-2tail, ... at which nothing exists.
std::string firstFreeNumber(const std::string& head, const std::string& tail) {
  for (uint32_t number = 1;; ++number) {
    std::string candidate = numbered(head, number) + tail;
    if (!pathExists(candidate)) {
      return candidate;
    }
  }
}

bool hasReachedAge(int directory, const std::string& name, time_t now, uint64_t age) {
  struct stat status = {};
  return fstatat(directory, name.c_str(), &status, 0) == 0 &&
         difftime(now, status.st_ctime) >= static_cast<double>(age);
}

/// A name that is too much for the matcher does not match.
bool matches(const char* name, const std::regex& pattern) {
  try {
    return std::regex_match(name, pattern);
  } catch (const std::regex_error&) {
    return false;
  }
}

/// The type that the directory itself tells of its entry, where the file system puts it there.
bool isLink(const dirent& entry, const std::string& directory) {
  return entry.d_type == DT_UNKNOWN ? isSymbolicLink(childPath(directory, entry.d_name))
                                    : entry.d_type == DT_LNK;
}

void reportUnreadable(const std::string& directory) {
  const int error = errno;
  syslog(LOG_ERR, "%s (%s)\n", directory.c_str(), std::generic_category().message(error).c_str());
  errno = error;
}

/// libstdc++ looks characters up in tables of the locale that it fills on first use without a lock,
/// when it compiles a regular expression and with some of them when it matches. Filled here, before
/// the program has a second thread, they are only read later.
bool fillCharacterTables() {
  const auto& characters = std::use_facet<std::ctype<char>>(std::locale::classic());
  for (int character = 1; character <= UCHAR_MAX; ++character) {
    characters.narrow(static_cast<char>(character), '\0');
    characters.widen(static_cast<char>(character));
  }
  return true;
}
[[maybe_unused]] const bool kCharacterTablesAreFilled = fillCharacterTables();

/// The number behind the last "-" as `strtol` reads it, "0x10" and "010" included; 0 if there is
/// none.
uint32_t numberOf(const std::string& name) {
  const std::vector<std::string> pieces = splitString(name, '-');
  // Not strtol: the number shall not depend on the size of long.
  return pieces.empty() ? 0
                        : static_cast<uint32_t>(std::strtoll(pieces.back().c_str(), nullptr, 0));
}

/// The names of the siblings of `base`, which is a regular expression; empty if it is none.
std::vector<std::string> numberedNames(const std::string& directory, const std::string& base) {
  // The regex compiler's recursion goes as deep as the expression is long.
  constexpr size_t kLongestBase = 1024;
  if (base.size() > kLongestBase) {
    return {};
  }
  std::vector<std::string> names;
  try {
    collectMatchingNames(directory, std::regex(base + "-[[:alnum:]]*"), names, false);
  } catch (const std::regex_error&) {
    return {};
  }
  return names;
}

}  // namespace

std::string uniquePath(const std::string& path) {
  return pathExists(path) ? firstFreeNumber(path, "") : path;
}

std::string uniquePathKeepingSuffix(const std::string& path) {
  if (!pathExists(path)) {
    return path;
  }
  if (path.find_first_of("\n\r") != std::string::npos) {
    return "";
  }
  constexpr const char* kNameCharacters =
      "/_-0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  const size_t suffix = std::min(path.find_first_not_of(kNameCharacters), path.size());
  return firstFreeNumber(path.substr(0, suffix), path.substr(suffix));
}

std::string moveToUniquePath(const std::string& directory, const std::string& newPath) {
  if (!isDirectory(directory)) {
    return "";
  }
  std::string target = uniquePath(newPath);
  return renamePath(directory, target) ? target : "";
}

bool pruneDirectory(const std::string& directory, uint64_t maximumAge) {
  DirectoryStream stream(directory);
  if (!stream.isOpen()) {
    return true;
  }
  const time_t now = std::time(nullptr);
  return removeEntries(std::move(stream), [now, maximumAge](int parent, const std::string& name) {
    return maximumAge == 0 || hasReachedAge(parent, name, now, maximumAge);
  });
}

bool collectMatchingNames(const std::string& directory, const std::regex& pattern,
                          std::vector<std::string>& names, bool includeSymbolicLinks) {
  DirectoryStream stream(directory);
  if (!stream.isOpen()) {
    reportUnreadable(directory);
    return false;
  }
  const size_t earlierNames = names.size();
  while (const dirent* entry = stream.next()) {
    if (!isDotName(entry->d_name) && matches(entry->d_name, pattern) &&
        (includeSymbolicLinks || !isLink(*entry, directory))) {
      names.emplace_back(entry->d_name);
    }
  }
  return names.size() > earlierNames;
}

std::string latestNumberedPath(const std::string& path) {
  const std::string base = withoutTrailingSlashes(path);
  const std::string directory = parentDirectory(base);
  if (directory.empty()) {
    return "";
  }
  const std::vector<std::string> names = numberedNames(directory, lastPathComponent(base));
  if (names.empty()) {
    return "";
  }
  uint32_t latest = 0;
  for (const std::string& name : names) {
    latest = std::max(latest, numberOf(name));
  }
  return numbered(base, latest) + '/';
}

}  // namespace kst::support
