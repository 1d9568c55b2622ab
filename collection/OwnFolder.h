#pragma once

#include <sys/types.h>

#include <string>

#include "support/Descriptor.h"

namespace collection {

/// Opens a folder of the service's own, made if it is missing. It must be a folder, not a link to
/// one, and belong to the user that the process runs as; what `mode` does not allow is taken away.
/// Throws CollectionError.
kst::support::Descriptor openOwnFolder(const std::string& path, mode_t mode);

/// Makes a file of the mode `kOwnFileMode`, whatever the umask, and opens it for writing; none,
/// with `errno`, if it cannot or the name is taken.
kst::support::Descriptor createOwnFile(int directory, const std::string& name);
inline constexpr mode_t kOwnFileMode = 0640;

/// Removes the entry `name` of the open directory with everything below it, of a link the link.
/// False, with `errno`, if something of it stays; true if there is no such entry.
bool removeEntry(int directory, const std::string& name);

}  // namespace collection
