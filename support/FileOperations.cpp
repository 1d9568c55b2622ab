#include "support/FileOperations.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <fstream>
#include <functional>
#include <limits>
#include <utility>

#include "platform/text/SplitString.h"
#include "support/Descriptor.h"
#include "support/DirectoryStream.h"
#include "support/RecordLock.h"
#include "support/TreeRemoval.h"

namespace kst::support {

namespace {

bool copyBytes(int source, int destination) {
  std::array<char, 1024> buffer;
  while (true) {
    const ssize_t count = read(source, buffer.data(), buffer.size());
    if (count <= 0) {
      return count == 0;
    }
    if (!writeFully(destination, buffer.data(), static_cast<size_t>(count))) {
      return false;
    }
  }
}

bool copyMode(int source, int destination) {
  struct stat status = {};
  return fstat(source, &status) == 0 && fchmod(destination, status.st_mode) == 0;
}

/// Opens a file that has a size, and tells it. Does not wait: a pipe without a writer opens at
/// once, and has none.
Descriptor openSized(const std::string& path, off_t& size) {
  Descriptor file(openPath(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC, 0));
  struct stat status = {};
  if (!file || fstat(file.get(), &status) != 0) {
    return {};
  }
  if (S_ISDIR(status.st_mode)) {  // its end has a position, but that is no size
    errno = EISDIR;
    return {};
  }
  size = lseek(file.get(), 0, SEEK_END);
  return size >= 0 ? std::move(file) : Descriptor();
}

bool readFully(int descriptor, char* data, size_t length) {
  while (length > 0) {
    const ssize_t count = read(descriptor, data, length);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0) {
      errno = count < 0 ? errno : ENODATA;
      return false;
    }
    data += count;
    length -= static_cast<size_t>(count);
  }
  return true;
}

/// False if `size_t` is too small for the position of the end.
bool storeSize(std::streamoff end, size_t& size) {
  if (!std::in_range<size_t>(end)) {
    errno = EFBIG;
    return false;
  }
  size = static_cast<size_t>(end);
  return true;
}

}  // namespace

bool writeFully(int descriptor, const void* data, size_t length) {
  const char* next = static_cast<const char*>(data);
  while (length > 0) {
    const ssize_t count = write(descriptor, next, length);
    if (count < 0) {
      return false;
    }
    next += count;
    length -= static_cast<size_t>(count);
  }
  return true;
}

bool writeStreamFully(FILE* stream, const void* data, size_t length) {
  const char* next = static_cast<const char*>(data);
  while (length > 0) {
    const size_t count = fwrite(next, 1, length, stream);
    if (count == 0) {
      return false;
    }
    next += count;
    length -= count;
  }
  fflush(stream);
  return true;
}

int openPath(const std::string& path, int flags, mode_t mode) {
  return open(path.c_str(), flags, mode);
}

bool closeRetrying(int descriptor) {
  while (close(descriptor) != 0) {
    if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

bool copyFile(const std::string& source, const std::string& destination, bool copyPermissions) {
  const Descriptor from(openPath(source, O_RDONLY | O_CLOEXEC, 0));
  if (!from) {
    return false;
  }
  constexpr int kDestinationFlags = O_WRONLY | O_NONBLOCK | O_CREAT | O_TRUNC | O_CLOEXEC;
  const Descriptor to(openPath(destination, kDestinationFlags, 0644));
  if (!to) {
    return false;
  }
  return copyBytes(from.get(), to.get()) && (!copyPermissions || copyMode(from.get(), to.get()));
}

void listDirectory(const std::string& path, std::vector<std::string>& names) {
  DirectoryStream directory(path);
  if (!directory.isOpen()) {
    return;
  }
  while (const dirent* entry = directory.next()) {
    names.emplace_back(entry->d_name);
  }
}

bool readWholeFile(const std::string& path, std::vector<char>& content) {
  off_t size = 0;
  const Descriptor file = openSized(path, size);
  if (!file) {
    return false;
  }
  if (size == 0 || size > std::numeric_limits<int32_t>::max()) {
    errno = size == 0 ? ENODATA : EFBIG;
    return false;
  }
  content.resize(static_cast<size_t>(size));
  return lseek(file.get(), 0, SEEK_SET) == 0 &&
         readFully(file.get(), content.data(), content.size());
}

bool streamSize(std::ifstream& stream, size_t& size) {
  if (!stream.is_open()) {
    errno = EBADF;
    return false;
  }
  // The buffer's own positions: those of the stream cannot be had once a read has met the end of
  // the file.
  std::filebuf& file = *stream.rdbuf();
  const std::streamoff position = file.pubseekoff(0, std::ios::cur, std::ios::in);
  const std::streamoff end = file.pubseekoff(0, std::ios::end, std::ios::in);
  if (position < 0 || end < 0) {
    return false;
  }
  file.pubseekoff(position, std::ios::beg, std::ios::in);
  return storeSize(end, size);
}

bool fileSize(const std::string& path, size_t& size) {
  off_t end = 0;
  return openSized(path, end) && storeSize(end, size);
}

bool pathExists(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0;
}

bool isSymbolicLink(const std::string& path) {
  struct stat status = {};
  return lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

bool isDirectory(const std::string& path) {
  if (!pathExists(path)) {
    return false;
  }
  DirectoryStream directory(path);
  return directory.isOpen() && directory.next() != nullptr;
}

bool makeDirectory(const std::string& path, mode_t mode, bool recursive) {
  if (pathExists(path)) {
    return true;
  }
  if (!recursive) {
    return mkdir(path.c_str(), mode) == 0;
  }
  std::string prefix = path.starts_with('/') ? "/" : "";
  for (const std::string& piece : splitString(path, '/')) {
    prefix += piece;
    if (!pathExists(prefix) && mkdir(prefix.c_str(), mode) != 0) {
      return false;
    }
    prefix += '/';
  }
  return true;
}

bool renamePath(const std::string& oldPath, const std::string& newPath) {
  return rename(oldPath.c_str(), newPath.c_str()) == 0;
}

bool changeMode(const std::string& path, mode_t mode) { return chmod(path.c_str(), mode) == 0; }

bool removeFile(const std::string& path) { return removeFileAt(AT_FDCWD, path); }

bool removeTree(const std::string& path) {
  if (!pathExists(path)) {
    return true;
  }
  const std::string top = withoutTrailingSlashes(path);
  if (DirectoryStream directory = openDirectory(AT_FDCWD, top); directory.isOpen()) {
    const auto all = [](int, const std::string&) { return true; };
    if (!removeEntries(std::move(directory), all)) {
      return false;
    }
  }
  removeFile(top);
  return true;
}

int lockFileShared(const std::string& path) {
  Descriptor file(openPath(path, O_RDONLY | O_CLOEXEC, 0));
  return file && setRecordLock(file.get(), F_SETLKW, F_RDLCK) ? file.release() : -1;
}

bool unlockFile(int descriptor) {
  const Descriptor closing(descriptor);
  return setRecordLock(descriptor, F_SETLKW, F_UNLCK);
}

size_t hashString(const std::string& text) { return std::hash<std::string>()(text); }

bool fileSystemSpace(const std::string& path, uint64_t& totalBlocks, uint64_t& freeBlocks,
                     uint64_t& fragmentSize) {
  struct statvfs status = {};
  if (path.empty()) {
    errno = ENOENT;
    return false;
  }
  if (statvfs(path.c_str(), &status) != 0) {
    return false;
  }
  totalBlocks = status.f_blocks;
  freeBlocks = status.f_bfree;
  fragmentSize = status.f_frsize;
  return true;
}

std::string lastPathComponent(const std::string& path) {
  const std::vector<std::string> components = splitString(path, '/');
  return components.empty() ? "" : components.back();
}

std::string parentDirectory(const std::string& path) {
  const std::string last = lastPathComponent(path);
  return last.empty() ? "" : path.substr(0, path.rfind(last));
}

std::string withoutTrailingSlashes(const std::string& path) {
  const size_t last = path.find_last_not_of('/');
  return last == std::string::npos ? path : path.substr(0, last + 1);
}

}  // namespace kst::support
