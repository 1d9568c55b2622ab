#pragma once

#include <fcntl.h>
#include <unistd.h>

namespace kst::support {

/// Sets (F_RDLCK, F_WRLCK) or releases (F_UNLCK) a record lock on the whole file, however long it
/// grows, by a lock command of fcntl(2): F_SETLKW of the process, F_OFD_SETLK of the open file.
/// False, with `errno`, EINTR included, if that fails.
inline bool setRecordLock(int descriptor, int command, short type) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_pid = command == F_SETLKW ? getpid() : 0;
  return fcntl(descriptor, command, &lock) == 0;
}

}  // namespace kst::support
