#include "logdump/LogdumpCommand.h"

#include <iostream>
#include <utility>

#include "Tools/KSTTool/ServerRunning.h"
#include "logdump/BasebandLogs.h"
#include "logdump/DumpArguments.h"
#include "platform/client/ManagerClient.h"
#include "trace/Trace.h"

namespace {

void printDumpReply(const std::string& heading, const CommandResult& result,
                    const MessageValue& reply) {
  std::cout << heading << (result.status == 0 ? "Success" : "Failed") << std::endl;
  const MessageDict* dump = reply.dictionary();
  if (result.status != 0 || !dump) {
    return;
  }
  std::cout << "Path = " << kst::trace::kSnapshotFolder << kst::trace::kLogDirPrefix
            << dump->text(kst::kKeyTimestampString, "") << "-*" << std::endl;
}

}  // namespace

std::shared_ptr<LogdumpCommand> LogdumpCommand::create(
    const std::string& nodeName, const std::weak_ptr<CommandBase>& parentNode,
    const std::shared_ptr<ManagerClient>& managerClient, const TaskQueue& callbackQueue) {
  std::shared_ptr<LogdumpCommand> node(
      new LogdumpCommand(nodeName, parentNode, managerClient, callbackQueue));
  node->initialize();
  return node;
}

bool LogdumpCommand::isOptionAllowed(const std::string& optionName) {
  if (optionName == "bb" || isServerRunning()) {
    return true;
  }
  std::cerr << "Server is not running. Please try after server starts." << std::endl;
  return false;
}

void LogdumpCommand::registerOptions() {
  // The node owns its handlers, so they may refer to it plainly.
  addOption(
      "tel",
      [this](const TaskGroup& group, std::list<std::string> words) {
        return collectTelephonyLogs(group, std::move(words));
      },
      "[nocompress] <reason> collect telephony logs");
  addOption(
      "core",
      [this](const TaskGroup& group, std::list<std::string> words) {
        return collectTelephonyLogsWithCoredump(group, std::move(words));
      },
      "[nocompress] <reason> collect telephony logs with coredump");
  addOption(
      "bb",
      [this](const TaskGroup& /*group*/, std::list<std::string> words) {
        return collectBasebandLogs(manager, std::move(words));
      },
      "[nocompress] <reason> collect baseband logs only");
}

bool LogdumpCommand::collectTelephonyLogs(const TaskGroup& group, std::list<std::string> words) {
  bool compress = true;
  std::string reason;
  parseDumpArguments(words, compress, reason);
  MessageDict request;
  request.set(kst::kKeyTraceAction, kst::kCollectTelephonyLogs);
  request.set(kst::kKeyTraceDumpStateReason, reason);
  request.set(kst::kKeyTraceDumpStatePerformCompression, compress);
  return dump(group, request, "Telephony log collection: ");
}

bool LogdumpCommand::collectTelephonyLogsWithCoredump(const TaskGroup& group,
                                                      std::list<std::string> words) {
  bool compress = true;
  std::string reason;
  parseDumpArguments(words, compress, reason);
  MessageDict request;
  request.set(kst::kKeyBasebandResetType, kst::kBasebandResetTypeHard);
  request.set(kst::kKeyBasebandResetSubType, kst::kBasebandResetSubTypeOtherErrors);
  request.set(kst::kKeyTraceAction, kst::kCollectTelephonyLogsWithCoredump);
  request.set(kst::kKeyBasebandResetReason, reason);
  request.set(kst::kKeyTraceDumpStatePerformCompression, compress);
  return dump(group, request, "Telephony log collection with Coredump: ");
}

/// Sends the request and returns; the reply is printed on the queue, and the group waits for that.
bool LogdumpCommand::dump(const TaskGroup& group, const MessageDict& request,
                          const std::string& heading) {
  const TaskGroupHold sending(group);
  kst::client::PerformCommand(
      manager, kst::kCommandTraceDumpState,
      [heading, hold = TaskGroupHold(group)](const CommandResult& result,
                                             const MessageValue& reply) {
        printDumpReply(heading, result, reply);
      },
      request);
  return true;
}
