#include "services/Journal.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "collection/CollectionRequest.h"
#include "collection/Collector.h"

namespace {
bool hasJournal = false;
int journalResult = 0;
std::vector<std::string> fields;  // of the last entry of the journal
}  // namespace

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): names that the library reserves
extern "C" {

int sd_journal_sendv_with_location(const char* /*file*/, const char* /*line*/,
                                   const char* /*function*/, const iovec* parts, int count) {
  fields.clear();
  for (const iovec* part = parts; part != parts + count; ++part) {
    fields.emplace_back(static_cast<const char*>(part->iov_base), part->iov_len);
  }
  return journalResult;
}

int access(const char* path, int mode) noexcept {
  if (std::strcmp(path, "/run/systemd/journal/socket") == 0) {
    return hasJournal ? 0 : -1;
  }
  return faccessat(AT_FDCWD, path, mode, 0);
}

}  // extern "C"
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

namespace services {
namespace {

using std::chrono::milliseconds;

TEST(JournalTest, ACollectionIsOneEntryOrOneLine) {
  const Requester known{.client = "tool\nx", .user = 0, .process = 77};
  collection::CollectionRequest request;
  request.kind = collection::LogKind::kBaseband;
  request.reason = std::string(1001, 'r');
  const std::string reason(1000, 'r');
  collection::CollectionOutcome outcome;
  outcome.path = "/snapshot";
  outcome.bytes = 5;
  outcome.files = 2;
  const std::string message =
      "collected /snapshot for tool?x (" + reason + ") in 12.034 s, 5 bytes";
  hasJournal = true;
  journalResult = 0;
  recordCollection("it", known, request, outcome, milliseconds(12'034));
  EXPECT_THAT(fields, testing::UnorderedElementsAre(
                          "MESSAGE_ID=5f3a1c0e9b7d4e62a8c4d1f06b2e7a93", "MESSAGE=" + message,
                          "PRIORITY=6", "SYSLOG_IDENTIFIER=it", "KESTRANE_CLIENT=tool?x",
                          "KESTRANE_UID=0", "KESTRANE_PID=77",
                          "KESTRANE_ACTION=CollectBasebandLogs", "KESTRANE_REASON=" + reason,
                          "KESTRANE_STATUS=0", "KESTRANE_TEXT=", "KESTRANE_PATH=/snapshot",
                          "KESTRANE_FILES=2", "KESTRANE_BYTES=5", "KESTRANE_MILLISECONDS=12034"));
  outcome.result.text = "one was cut";
  recordCollection("it", known, request, outcome, milliseconds(12'034));
  EXPECT_THAT(fields, testing::IsSupersetOf<std::string>(
                          {"MESSAGE=" + message + ": one was cut", "PRIORITY=4"}));
  outcome = collection::failedCollection(-1, "no room");
  journalResult = -ENOENT;
  for (const bool isThere : {true, false}) {
    hasJournal = isThere;
    testing::internal::CaptureStderr();
    recordCollection("it", {}, request, outcome, milliseconds(7));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "it: uid ?, pid ?: no collection for  (" + reason + ") in 0.007 s: no room\n");
  }
}

TEST(JournalTest, ALineIsCutAndNeverWaits) {
  testing::internal::CaptureStderr();
  writeErrorLine(std::string(9000, 'x'));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), std::string(PIPE_BUF - 1, 'x') + "\n");
  int ends[2] = {};
  ASSERT_EQ(pipe(ends), 0);
  std::string full(static_cast<std::size_t>(fcntl(ends[1], F_GETPIPE_SZ)), '.');
  EXPECT_EQ(write(ends[1], full.data(), full.size()), static_cast<ssize_t>(full.size()));
  const int standardError = dup(STDERR_FILENO);
  dup2(ends[1], STDERR_FILENO);
  writeErrorLine("lost");
  dup2(standardError, STDERR_FILENO);
}

}  // namespace
}  // namespace services
