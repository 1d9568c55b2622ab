#include "services/CollectingService.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <system_error>
#include <utility>

#include "platform/client/Constants.h"

namespace services {
namespace {

constexpr std::chrono::seconds kStopLimit{4};

/// Logs are opened before they are copied, thousands at a time.
void raiseDescriptorLimit() {
  constexpr rlim_t kEnough = 8192;
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < kEnough) {
    limit.rlim_cur = std::min(limit.rlim_max, kEnough);
    setrlimit(RLIMIT_NOFILE, &limit);
  }
}

bool isAbandoned(const Job& job) { return job.isAbandoned(); }

}  // namespace

void answerWith(const collection::CollectionOutcome& outcome, const char* key,
                dbus::PerformCall& call) {
  MessageDict reply;
  if (outcome.result.status == 0) {
    reply.set(key, outcome.timestamp);
  }
  call.answer(outcome.result, reply);
}

CollectingService::CollectingService(std::string serviceName, const dbus::Peer& servicePeer,
                                     const collection::DevicePaths& devicePaths,
                                     const collection::Limits& collectionLimits)
    : name(std::move(serviceName)),
      peer(servicePeer),
      paths(devicePaths),
      limits(collectionLimits),
      collector(paths, limits) {
  // What is private is made so in each case; the folders above it are everybody's.
  umask(022);
  raiseDescriptorLimit();
  // A daemon that ends while it is written to, or a limit on file sizes, is an error of that write.
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  for (const int signal : {SIGTERM, SIGINT}) {
    loop.onSignal(signal, [this] { stop(); });
  }
  worker = std::thread([this] { work.serve(); });
}

CollectingService::~CollectingService() {
  stopping = true;
  work.close();
  worker.join();
}

int CollectingService::run(dbus::Service::Handler perform) {
  try {
    serve(std::move(perform));
  } catch (const std::system_error& error) {
    fail(error.what());
  }
  return exitStatus;
}

void CollectingService::serve(dbus::Service::Handler perform) {
  const auto accept = [this,
                       perform = std::move(perform)](std::shared_ptr<dbus::PerformCall> call) {
    if (stopping) {
      call->answer({kst::kResultStopping, name + " is stopping"});
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
  // Each collection clears what an earlier one has left; but that may take the room of others.
  work.push([this] {
    if (const auto failure = collector.clearRemains()) {
      writeErrorLine(name + ": " + *failure);
    }
  });
  setServerState(kst::kServerStateStarted);
  loop.run();
}

void CollectingService::collect(Job job) {
  std::erase_if(waiting, isAbandoned);
  if (running && waiting.size() >= limits.maxWaiting) {
    job.done(collection::failedCollection(
        kst::kResultBusy, std::to_string(waiting.size()) + " requests are waiting"));
    return;
  }
  waiting.push_back(std::move(job));
  startNext();
}

void CollectingService::startNext() {
  std::erase_if(waiting, isAbandoned);
  if (running || waiting.empty()) {
    return;
  }
  running = std::move(waiting.front());
  waiting.pop_front();
  work.push([this] { loop.post([this, outcome = makeCollection()] { finish(outcome); }); });
}

/// On the worker.
collection::CollectionOutcome CollectingService::makeCollection() const {
  const Clock::time_point start = Clock::now();
  collection::CollectionOutcome outcome =
      collector.collect(running->request, [this] { return stopping || running->isAbandoned(); });
  recordCollection(name, running->requester, running->request, outcome,
                   std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start));
  return outcome;
}

void CollectingService::finish(const collection::CollectionOutcome& outcome) {
  const Job job = *std::exchange(running, std::nullopt);
  job.done(outcome);
  if (stopping) {
    end();
  } else {
    startNext();
  }
}

void CollectingService::stop() {
  if (stopping.exchange(true)) {
    return;
  }
  setServerState(kst::kServerStateStopping);
  for (const Job& job : std::exchange(waiting, {})) {
    job.done(collection::failedCollection(kst::kResultStopping, name + " is stopping"));
  }
  if (!running) {
    // Behind what the worker may still have to clear.
    work.push([this] { loop.post([this] { end(); }); });
  }
  loop.after(kStopLimit, [this] {
    fail("a collection could not be broken off");
    _exit(exitStatus);
  });
}

void CollectingService::end() {
  setServerState(kst::kServerStateStopped);
  loop.stop();
}

void CollectingService::fail(const std::string& text) {
  writeErrorLine(name + ": " + text);
  exitStatus = 1;
}

void CollectingService::setServerState(const char* state) {
  if (peer.hasServerState) {
    service->setServerState(state);
  }
}

}  // namespace services
