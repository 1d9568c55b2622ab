#pragma once

#include <memory>
#include <string>

#include "platform/client/ManagerClient.h"
#include "platform/tasks/TaskQueue.h"
#include "shell/CommandBase.h"

/// A node of the tool's command tree: one that can reach the manager service.
class KSTCommandBase : public CommandBase {
 public:
  ~KSTCommandBase() override;

 protected:
  KSTCommandBase(const std::string& nodeName, const std::weak_ptr<CommandBase>& parentNode,
                 const std::shared_ptr<ManagerClient>& managerClient,
                 const TaskQueue& callbackQueue);

  const std::shared_ptr<ManagerClient> manager;
  const TaskQueue queue;  // where the manager client delivers its callbacks
};
