#include "Tools/KSTTool/KSTCommandBase.h"

KSTCommandBase::KSTCommandBase(const std::string& nodeName,
                               const std::weak_ptr<CommandBase>& parentNode,
                               const std::shared_ptr<ManagerClient>& managerClient,
                               const TaskQueue& callbackQueue)
    : CommandBase(nodeName, parentNode), manager(managerClient), queue(callbackQueue) {}

KSTCommandBase::~KSTCommandBase() = default;
