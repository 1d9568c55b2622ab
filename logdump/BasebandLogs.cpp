#include "logdump/BasebandLogs.h"

#include <chrono>
#include <cstdint>
#include <iostream>

#include "logdump/DumpArguments.h"
#include "platform/client/HelperClient.h"
#include "trace/DevicePredicates.h"
#include "trace/DiagConfig.h"
#include "trace/Trace.h"

namespace {

constexpr std::chrono::milliseconds kHelperTimeout{1500};

void printSnapshotPath(const std::string& timestamp, const std::string& suffix) {
  std::cout << "Path = " << kst::trace::kSnapshotFolder << kst::trace::kLogDirPrefix << timestamp
            << suffix << std::endl;
}

/// Prints where the logs are while the manager is down: the helper's last collection, or else the
/// daemon's own folder.
void printPathWithoutManager() {
  const std::string timestamp = queryHelperTimestamp();
  std::cout << "Baseband log collection: Success (KST not running)" << std::endl;
  if (timestamp.empty()) {
    std::cout << "Path = " << kst::trace::kScratchFolder << diag::config::kDIAGScratchDir
              << std::endl;
  } else {
    printSnapshotPath(timestamp, kst::trace::basebandFolderSuffix());
  }
}

void dumpBasebandLogs(const std::shared_ptr<ManagerClient>& manager, std::list<std::string> words) {
  bool compress = true;
  std::string reason;
  parseDumpArguments(words, compress, reason);
  MessageDict request;
  request.set(kst::kKeyTraceDumpStateReason, reason);
  request.set(kst::kKeyTraceAction, kst::kCollectBasebandLogs);
  request.set(kst::kKeyTraceDumpStatePerformCompression, compress);
  MessageValue reply;
  const CommandResult result =
      kst::client::PerformCommand(manager, kst::kCommandTraceDumpState, request, reply);

  if (result.status == kst::kResultManagerNotRunning) {
    printPathWithoutManager();
    return;
  }
  if (result.status != 0) {
    std::cout << "Baseband log collection: Failed" << std::endl;
    return;
  }
  std::cout << "Baseband log collection: Success (KST running)" << std::endl;
  const MessageDict* dump = reply.dictionary();
  printSnapshotPath(dump ? dump->text(kst::kKeyTimestampString, "") : "",
                    compress ? "-baseband.zip" : kst::trace::basebandFolderSuffix());
}

}  // namespace

bool collectBasebandLogs(const std::shared_ptr<ManagerClient>& manager,
                         std::list<std::string> words) {
  MessageDict request;
  request.set(kst::kKeyTraceName, kst::kTraceBaseband);
  request.set(kst::kKeyTracePropertyName, kst::kKeyTraceEnabled);
  MessageValue reply;
  const CommandResult result =
      kst::client::PerformCommand(manager, kst::kCommandGetTraceProperty, request, reply);

  const MessageDict* property = reply.dictionary();
  if (result.status != 0 || !property) {
    std::cout << "Baseband log collection: Failed" << std::endl;
    return result.status == 0;
  }
  const std::string enabled = property->text(kst::kKeyTracePropertyValue, kst::kUnknown);
  if (enabled != "1" && enabled != "true") {
    std::cout << "Baseband logs are not enabled" << std::endl;
    return true;
  }
  dumpBasebandLogs(manager, std::move(words));
  return true;
}

std::string queryHelperTimestamp() {
  if (!kst::trace::isInternalOrCarrier()) {
    return "";
  }
  const std::shared_ptr<kst::HelperClient> helper = kst::HelperClient::create("logdump.helper", {});
  if (!helper) {
    return "";
  }
  MessageDict request;
  request.set(kst::helper::kKeyTimeout, std::int64_t{kHelperTimeout.count()});
  MessageDict reply;
  const CommandResult result = helper->perform(
      kst::helper::TaskID::kSyscollect, kst::helper::kCommandSyscollectStatus, request, reply);
  return result.status == 0 ? reply.text(kst::helper::kKeyTimestampString, "") : "";
}
