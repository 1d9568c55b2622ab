#pragma once

#include <optional>
#include <string>

class MessageDict;

namespace collection {

enum class LogKind {
  kTelephony,              ///< telephony and baseband logs
  kTelephonyWithCoreDump,  ///< these and a fresh core dump
  kBaseband,               ///< baseband logs alone
};

struct CollectionRequest {
  LogKind kind = LogKind::kTelephony;
  bool compress = true;
  bool isIndicated = false;  ///< the dump indication stands meanwhile
  std::string reason;        ///< one line of printable text

  // Of a core dump, each one line of printable text.
  std::string resetType;
  std::string resetSubType;
};

/// The collection that a request of kCommandTraceDumpState asks for; nothing if its action is
/// missing or unknown, or a value has a type of its own. A missing text is kUnknown.
std::optional<CollectionRequest> readCollectionRequest(const MessageDict& request);

/// The action of a request for this kind.
const char* actionOf(LogKind kind);

}  // namespace collection
