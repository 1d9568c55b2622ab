#pragma once

#include <memory>
#include <string>

#include "Tools/KSTTool/KSTCommandBase.h"

/// The root of the tool's command tree: its children are the tool's commands.
class KSTCommand : public KSTCommandBase {
 public:
  static std::shared_ptr<KSTCommand> create(const std::string& nodeName,
                                            const std::weak_ptr<CommandBase>& parentNode,
                                            const std::shared_ptr<ManagerClient>& managerClient,
                                            const TaskQueue& callbackQueue);

 protected:
  void registerOptions() override;

 private:
  using KSTCommandBase::KSTCommandBase;
};
