#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>

namespace collection {
struct CollectionOutcome;
struct CollectionRequest;
}  // namespace collection

namespace dbus {
class PerformCall;
}

namespace services {

/// Who has asked for a collection.
struct Requester {
  std::string client;                   ///< what the caller calls itself
  uid_t user = static_cast<uid_t>(-1);  ///< as the bus knows it; -1 if it does not
  pid_t process = -1;                   ///< likewise
};

Requester requesterOf(const dbus::PerformCall& call);

/// Writes one line to standard error, cut at PIPE_BUF bytes. Nothing if that would wait: nobody may
/// read the other end.
void writeErrorLine(const std::string& text);

/// Puts a collection on record: one entry of the system journal, or one line on standard error
/// where there is no journal. docs/architecture.md lists the fields.
void recordCollection(const std::string& service, const Requester& requester,
                      const collection::CollectionRequest& request,
                      const collection::CollectionOutcome& outcome, std::chrono::milliseconds time);

}  // namespace services
