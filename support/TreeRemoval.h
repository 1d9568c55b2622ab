#pragma once

#include <functional>
#include <string>

#include "support/DirectoryStream.h"

namespace kst::support {

/// Tells of an entry of the open `directory` whether it is to go. Asked right before its removal,
/// so it sees what the removal of earlier entries has changed.
using EntryChoice = std::function<bool(int directory, const std::string& name)>;

/// Removes the chosen entries of the open directory, each with everything below it; of a symbolic
/// link, at any level, only the link goes. Entries are listed before the first one is removed and
/// removed in the order of `readdir`. Stops with false at the first one that cannot be removed;
/// whether a directory could be removed once it was emptied is not part of the result. True also if
/// the directory cannot be read. REQUIRES: an open directory of which nothing was read.
///
/// Every name is looked up in a directory that is held open, so neither the depth of the tree
/// matters nor somebody who swaps its directories for links meanwhile; a directory that is moved
/// elsewhere while it is being emptied may give false (ENOENT). On the way back up a directory is
/// known by device and inode number alone. Takes two descriptors, the given one included, and
/// memory for the names in the directories between the given one and the one that is being emptied.
bool removeEntries(DirectoryStream directory, const EntryChoice& isChosen);

/// `remove`, else `unlink`, with `directory` and `path` as for `unlinkat`.
bool removeFileAt(int directory, const std::string& path);

}  // namespace kst::support
