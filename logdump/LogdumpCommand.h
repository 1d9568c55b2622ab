#pragma once

#include <list>
#include <memory>
#include <string>

#include "Tools/KSTTool/KSTCommandBase.h"
#include "platform/message/CommandResult.h"
#include "platform/message/MessageDict.h"

/// The node "logdump": its options have the services collect logs and print where these lie.
class LogdumpCommand : public KSTCommandBase {
 public:
  static std::shared_ptr<LogdumpCommand> create(const std::string& nodeName,
                                                const std::weak_ptr<CommandBase>& parentNode,
                                                const std::shared_ptr<ManagerClient>& managerClient,
                                                const TaskQueue& callbackQueue);

  /// Refuses all options but "bb" while the manager service is not running, and says so on standard
  /// error.
  bool isOptionAllowed(const std::string& optionName) override;

 protected:
  void registerOptions() override;

 private:
  using KSTCommandBase::KSTCommandBase;

  bool collectTelephonyLogs(const TaskGroup& group, std::list<std::string> words);
  bool collectTelephonyLogsWithCoredump(const TaskGroup& group, std::list<std::string> words);
  bool dump(const TaskGroup& group, const MessageDict& request, const std::string& heading);
};
