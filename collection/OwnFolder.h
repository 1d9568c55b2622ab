#pragma once

#include <string>

#include "support/Descriptor.h"

namespace collection {

/// Opens a folder of the service's own, made if it is missing. It must be a folder, not a link to
/// one, and belong to the user that the process runs as; what others than its user and group may
/// do in it is taken away. Throws CollectionError.
kst::support::Descriptor openOwnFolder(const std::string& path);

/// Removes the entry `name` of the open directory with everything below it, of a link the link.
/// False, with `errno`, if something of it stays; true if there is no such entry.
bool removeEntry(int directory, const std::string& name);

}  // namespace collection
