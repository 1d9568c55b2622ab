#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <iosfwd>
#include <string>
#include <vector>

/// File and directory operations over the POSIX calls. They keep no state, may be called from any
/// thread, take paths as they come, and neither throw nor print for anything that a file system
/// does: the result tells the outcome, and `errno` the reason of a failure, as the call that failed
/// set it or as said below; the tests of what a path is tell yes or no alone. Files are as large as
/// the file system lets them, on 32-bit systems too.
namespace kst::support {

/// Writes all `length` bytes. False as soon as `write` fails, EINTR included; what was written
/// before stays.
bool writeFully(int descriptor, const void* data, size_t length);

/// Writes all `length` bytes with `fwrite`, then flushes the stream; the outcome of the flush is
/// not part of the result. False, without a flush, as soon as nothing can be written.
bool writeStreamFully(FILE* stream, const void* data, size_t length);

/// `open` with these arguments. The caller owns the descriptor; negative on failure.
int openPath(const std::string& path, int flags, mode_t mode);

/// `close`, repeated while it fails with EINTR. On Linux the descriptor is closed even then, so the
/// repetition gives false (EBADF), unless another thread has been given its number meanwhile.
bool closeRetrying(int descriptor);

/// Copies the bytes of `source`, and on request its permission bits, to `destination`, which is
/// created (mode 0644 less the umask) or truncated. After a failure `destination` keeps what was
/// written so far. Waits for a writer if `source` is a pipe. REQUIRES: two different files; a file
/// that is copied onto itself, under whatever name, is emptied, and the result is true.
bool copyFile(const std::string& source, const std::string& destination, bool copyPermissions);

/// Appends the names of the directory's entries, "." and ".." included, in the order in which
/// `readdir` gives them. Appends nothing if the directory cannot be opened.
void listDirectory(const std::string& path, std::vector<std::string>& names);

/// Replaces `content` by the bytes of the file. False, and `content` untouched, if it cannot be
/// opened, is empty (ENODATA), has no size (a directory: EISDIR, a pipe: ESPIPE) or has 2^31 bytes
/// or more (EFBIG); false as well if fewer bytes than its size can be read (ENODATA if it ends
/// early). Does not wait for the other end of a pipe.
bool readWholeFile(const std::string& path, std::vector<char>& content);

/// The size in bytes of the file that `stream` has open: the position of its end. The read position
/// and the state of the stream stay. False, and `size` untouched, if no file is open (EBADF), its
/// end has no position (ESPIPE for a pipe) or does not fit (EFBIG). REQUIRES: no directory, whose
/// end has a position that is no size.
bool streamSize(std::ifstream& stream, size_t& size);

/// The size in bytes of the file. False, and `size` untouched, if it cannot be opened for reading,
/// has no size (a directory: EISDIR, a pipe: ESPIPE) or one that does not fit (EFBIG).
bool fileSize(const std::string& path, size_t& size);

/// True if `stat` succeeds: a dangling link does not exist.
bool pathExists(const std::string& path);

/// True if the path itself is a symbolic link (`lstat`), dangling or not.
bool isSymbolicLink(const std::string& path);

/// True if the path, links followed, can be read as a directory. A directory without read
/// permission is none.
bool isDirectory(const std::string& path);

/// Creates the directory, with `recursive` also those above it, each with `mode` less the umask.
/// True if anything at all exists at `path` beforehand. Stops at the first level that cannot be
/// created; levels created before stay.
bool makeDirectory(const std::string& path, mode_t mode, bool recursive);

/// `rename`.
bool renamePath(const std::string& oldPath, const std::string& newPath);

/// `chmod`.
bool changeMode(const std::string& path, mode_t mode);

/// Removes a file, a link or an empty directory.
bool removeFile(const std::string& path);

/// Removes the path and everything below it, of any depth; of a symbolic link, at any level, only
/// the link. Stops with false at the first entry below `path` that cannot be removed; what was
/// removed before stays removed. True, and nothing done, if `stat` fails: a dangling link stays.
/// Whether a directory could be removed once it was emptied is not part of the result, nor whether
/// `path` itself could, which stays if it is a directory that is not empty and cannot be read.
/// Whoever swaps, links or moves directories of the tree meanwhile cannot lead the removal out of
/// it, as far as inode numbers tell directories apart; one moved away while it was being emptied
/// may give false (ENOENT). Takes two descriptors.
bool removeTree(const std::string& path);

/// Opens the lock file, which must exist, and takes a shared record lock (`fcntl`) on all of it.
/// Waits without limit for another process's exclusive lock. The caller owns the descriptor and
/// gives it to `unlockFile`; negative on failure. The lock belongs to the process and ends as soon
/// as the process closes any descriptor of this file.
int lockFileShared(const std::string& path);

/// Releases the lock and closes the descriptor, the latter in any case. False if the lock could not
/// be released.
bool unlockFile(int descriptor);

/// `std::hash` of the text: the same within one run of the program only.
size_t hashString(const std::string& text);

/// Capacity of the file system that holds `path`: both counts in units of `fragmentSize` bytes,
/// `freeBlocks` with those that are reserved for the superuser. On failure, which an empty path is
/// (ENOENT), the outputs are untouched.
bool fileSystemSpace(const std::string& path, uint64_t& totalBlocks, uint64_t& freeBlocks,
                     uint64_t& fragmentSize);

/// "c" for "/a/b/c" and "/a/b/c/"; an empty string if the path has no character other than "/".
std::string lastPathComponent(const std::string& path);

/// "/a/b/" for "/a/b/c": what stands before the last component. An empty string if nothing does.
std::string parentDirectory(const std::string& path);

/// "/a/b" for "/a/b//". A path of nothing but "/" stays as it is.
std::string withoutTrailingSlashes(const std::string& path);

}  // namespace kst::support
