#include "platform/streams/StandardStreams.h"

#include <fcntl.h>
#include <unistd.h>

#include <initializer_list>

void reserveStandardDescriptors() {
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(descriptor, F_GETFD) < 0) {
      open("/dev/null", (descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY) | O_CLOEXEC);
    }
  }
}
