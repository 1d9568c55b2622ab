#include "services/Journal.h"

#include <poll.h>
#include <sys/uio.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <vector>

#include "collection/CollectionRequest.h"
#include "collection/Collector.h"
#include "collection/PrintableText.h"
#include "platform/dbus/Service.h"
#include "support/FileOperations.h"

namespace services {
namespace {

/// What all these entries have in common, for journalctl(1).
constexpr const char* kMessageID = "MESSAGE_ID=5f3a1c0e9b7d4e62a8c4d1f06b2e7a93";

std::string seconds(std::chrono::milliseconds time) {
  const std::string text = std::to_string(time.count() + 1000);  // four digits at least
  const std::int64_t whole = time.count() / 1000;
  return std::to_string(whole) + "." + text.substr(text.size() - 3) + " s";
}

std::string idText(std::int64_t number) { return number < 0 ? "?" : std::to_string(number); }

/// Callers may write whole pages.
std::string cut(const std::string& text) {
  constexpr std::size_t kLongest = 1000;
  return collection::printable(text.substr(0, kLongest));
}

std::string message(const Requester& requester, const collection::CollectionRequest& request,
                    const collection::CollectionOutcome& outcome, std::chrono::milliseconds time) {
  const std::string who =
      " for " + cut(requester.client) + " (" + cut(request.reason) + ") in " + seconds(time);
  if (outcome.result.status != 0) {
    return "no collection" + who + ": " + outcome.result.text;
  }
  return "collected " + outcome.path + who + ", " + std::to_string(outcome.bytes) + " bytes" +
         (outcome.result.text.empty() ? "" : ": " + outcome.result.text);
}

/// False if there is no journal; the library does not tell.
bool sendToJournal(const std::vector<std::string>& fields) {
  if (access("/run/systemd/journal/socket", F_OK) != 0) {
    return false;
  }
  std::vector<iovec> parts;
  parts.reserve(fields.size());
  for (const std::string& field : fields) {
    // The library reads only.
    parts.push_back({.iov_base = const_cast<char*>(field.data()), .iov_len = field.size()});
  }
  return sd_journal_sendv(parts.data(), static_cast<int>(parts.size())) >= 0;
}

}  // namespace

Requester requesterOf(const dbus::PerformCall& call) {
  return {.client = call.command.client, .user = call.caller.user, .process = call.caller.process};
}

void writeErrorLine(const std::string& text) {
  pollfd standardError{.fd = STDERR_FILENO, .events = POLLOUT, .revents = 0};
  if (poll(&standardError, 1, 0) <= 0 || (standardError.revents & POLLOUT) == 0) {
    return;
  }
  const std::string line = text.substr(0, PIPE_BUF - 1) + "\n";
  kst::support::writeFully(STDERR_FILENO, line.data(), line.size());
}

void recordCollection(const std::string& service, const Requester& requester,
                      const collection::CollectionRequest& request,
                      const collection::CollectionOutcome& outcome,
                      std::chrono::milliseconds time) {
  const bool hasFailed = outcome.result.status != 0;
  const bool isRemarkable = hasFailed || !outcome.result.text.empty();
  const std::string text = message(requester, request, outcome, time);
  // An identifier of -1 is one that is not known.
  const auto user = static_cast<std::int64_t>(static_cast<std::int32_t>(requester.user));
  if (!sendToJournal({
          kMessageID,
          "MESSAGE=" + text,
          "PRIORITY=" + std::to_string(isRemarkable ? LOG_WARNING : LOG_INFO),
          "SYSLOG_IDENTIFIER=" + service,
          "KESTRANE_CLIENT=" + cut(requester.client),
          "KESTRANE_UID=" + idText(user),
          "KESTRANE_PID=" + idText(requester.process),
          "KESTRANE_ACTION=" + std::string(collection::actionOf(request.kind)),
          "KESTRANE_REASON=" + cut(request.reason),
          "KESTRANE_STATUS=" + std::to_string(outcome.result.status),
          "KESTRANE_TEXT=" + outcome.result.text,
          "KESTRANE_PATH=" + outcome.path,
          "KESTRANE_FILES=" + std::to_string(outcome.files),
          "KESTRANE_BYTES=" + std::to_string(outcome.bytes),
          "KESTRANE_MILLISECONDS=" + std::to_string(time.count()),
      })) {
    writeErrorLine(service + ": uid " + idText(user) + ", pid " + idText(requester.process) + ": " +
                   text);
  }
}

}  // namespace services
