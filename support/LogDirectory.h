#pragma once

#include <cstdint>
#include <regex>
#include <string>
#include <vector>

/// Free names, pruning and numbered siblings in log directories. The operations keep no state, may
/// be called from any thread and do not throw for anything that a file system does. They are not
/// atomic against other processes: a name found free can be taken before the caller uses it.
namespace kst::support {

/// The path if nothing exists there, else the first free one of path-1, path-2, ...
std::string uniquePath(const std::string& path);

/// Like `uniquePath`, but the number goes before the first character that is no letter, digit, "/",
/// "_" or "-": "bb.tar.gz" becomes "bb-1.tar.gz". An empty string if the path exists and contains a
/// line break.
std::string uniquePathKeepingSuffix(const std::string& path);

/// Renames the directory to `uniquePath(newPath)`, which is returned; an empty string on failure.
std::string moveToUniquePath(const std::string& directory, const std::string& newPath);

/// Removes the entries of the directory, with all that is below them, whose status (`st_ctime`)
/// last changed `maximumAge` seconds ago or earlier; 0 removes every entry. The directory itself
/// stays, and of a symbolic link only the link goes; its age is that of what it leads to, and under
/// an age limit a dangling one stays. Each age is looked at right before the removal; one in the
/// future is not reached. Stops with false at the first entry that cannot be removed; true also if
/// the directory cannot be opened. What somebody swaps or moves meanwhile is safe as with
/// `removeTree`.
bool pruneDirectory(const std::string& directory, uint64_t maximumAge);

/// Appends the names of the entries that `pattern` matches as a whole; one that takes the matcher
/// beyond its limits does not match. False if there is none; if the directory cannot be opened,
/// that is also reported to the system log. For the stack and the time that it takes see
/// `latestNumberedPath`.
bool collectMatchingNames(const std::string& directory, const std::regex& pattern,
                          std::vector<std::string>& names, bool includeSymbolicLinks);

/// The path, "-", the highest number that a sibling named so carries, and "/": "/logs/bb-10/" for
/// "/logs/bb". Numbers are read as `strtol` reads them with base 0; symbolic links do not count.
/// The last component of the path is used as a regular expression. An empty string if it is none or
/// longer than 1024 bytes, if there is no such sibling or if the path names no parent directory.
/// `std::regex` takes up to 100 KiB of stack for a component of plain characters and up to 300 KiB
/// with groups and classes, twice that in a build that is not optimized. REQUIRES: an expression
/// that it can match in bounded time and stack: neither "(a|a)*", which doubles the time with each
/// character, nor a "*" or "{0,20000}" behind groups within groups, which takes megabytes of stack.
std::string latestNumberedPath(const std::string& path);

}  // namespace kst::support
