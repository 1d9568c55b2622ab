#include "services/CollectingService.h"

#include <csignal>
#include <iostream>
#include <system_error>
#include <utility>

#include "platform/client/Constants.h"

namespace services {

CollectingService::CollectingService(std::string name, const dbus::Peer& servicePeer)
    : programName(std::move(name)), peer(servicePeer) {
  // A daemon that ends while it is written to, or a limit on file sizes, is an error of that write.
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  for (const int signal : {SIGTERM, SIGINT}) {
    loop.onSignal(signal, [this] { stop(); });
  }
  worker = std::thread([this] { work.serve(); });
}

CollectingService::~CollectingService() {
  work.close();
  worker.join();
}

int CollectingService::run(const std::function<collection::Failure()>& prepare,
                           dbus::Service::Handler perform) {
  try {
    serve(prepare, std::move(perform));
  } catch (const std::system_error& error) {
    fail(error.what());
  }
  return exitStatus;
}

void CollectingService::serve(const std::function<collection::Failure()>& prepare,
                              dbus::Service::Handler perform) {
  const auto accept = [this,
                       perform = std::move(perform)](std::shared_ptr<dbus::PerformCall> call) {
    if (stopping) {
      call->answer({kst::kResultStopping, programName + " is stopping"});
    } else {
      perform(std::move(call));
    }
  };
  const auto lost = [this] {
    if (stopping) {
      return;
    }
    fail("the bus is gone");
    stop();
  };
  service.emplace(loop, peer, accept, lost);
  // Only the owner of the name may clear up: what it finds belongs to nobody else.
  if (auto failure = prepare()) {
    return fail(*failure);
  }
  setServerState(kst::kServerStateStarted);
  loop.run();
}

void CollectingService::stop() {
  if (std::exchange(stopping, true)) {
    return;
  }
  setServerState(kst::kServerStateStopping);
  // Behind all work submitted, and then behind all that this work has posted.
  work.push([this] {
    loop.post([this] {
      setServerState(kst::kServerStateStopped);
      loop.stop();
    });
  });
}

void CollectingService::fail(const std::string& text) {
  std::cerr << programName << ": " << text << std::endl;
  exitStatus = 1;
}

void CollectingService::setServerState(const char* state) {
  if (peer.hasServerState) {
    service->setServerState(state);
  }
}

}  // namespace services
