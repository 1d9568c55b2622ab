#include "platform/device/ProgramName.h"

#include <cerrno>

const char* getprogname() { return program_invocation_short_name; }
