#include "Tools/KSTTool/KSTCommand.h"

#include "logdump/LogdumpCommand.h"

std::shared_ptr<KSTCommand> KSTCommand::create(const std::string& nodeName,
                                               const std::weak_ptr<CommandBase>& parentNode,
                                               const std::shared_ptr<ManagerClient>& managerClient,
                                               const TaskQueue& callbackQueue) {
  std::shared_ptr<KSTCommand> node(
      new KSTCommand(nodeName, parentNode, managerClient, callbackQueue));
  node->initialize();
  return node;
}

void KSTCommand::registerOptions() {
  addSubCommand("logdump", LogdumpCommand::create("logdump", shared_from_this(), manager, queue));
}
