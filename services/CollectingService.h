#pragma once

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "collection/Collector.h"
#include "platform/dbus/EventLoop.h"
#include "platform/dbus/Peer.h"
#include "platform/dbus/Service.h"
#include "platform/tasks/WorkList.h"
#include "services/Journal.h"

namespace services {

/// A collection that somebody waits for.
struct Job {
  collection::CollectionRequest request;
  Requester requester;

  /// Whether nobody waits any more: then it is not begun, or broken off. Asked on any thread.
  std::function<bool()> isAbandoned;

  /// Gets the outcome, on the main thread; not called for a job that was abandoned before it began.
  std::function<void(const collection::CollectionOutcome&)> done;
};

/// Answers a call with an outcome; the reply has the timestamp of a snapshot under `key`.
void answerWith(const collection::CollectionOutcome& outcome, const char* key,
                dbus::PerformCall& call);

/// How a service that collects logs starts, runs and stops. The main thread serves the bus and owns
/// the queue of jobs; collections are made one after the other on a thread beside it. After
/// SIGTERM, SIGINT or the loss of the bus new calls and the jobs that wait are refused
/// (kResultStopping), the collection that runs is broken off, and `run` returns; if that takes more
/// than 4 s, as a flush to a slow disk may, the process ends without waiting for it.
class CollectingService {
 public:
  /// `serviceName` stands before messages on standard error. REQUIRES: the process has one thread
  /// so far. Throws std::system_error when the system has no descriptors or threads left.
  CollectingService(std::string serviceName, const dbus::Peer& servicePeer,
                    const collection::DevicePaths& devicePaths,
                    const collection::Limits& collectionLimits);
  CollectingService(const CollectingService&) = delete;
  CollectingService& operator=(const CollectingService&) = delete;

  /// Waits for the thread to end, so that nothing runs beside the end of the process.
  ~CollectingService();

  /// Takes the peer's name on the bus and serves calls with `perform`. Returns the exit status of
  /// the process: 0 after a signal; 1, after one line on standard error, when there is no bus, the
  /// name is taken, the bus is lost, or the end took too long.
  int run(dbus::Service::Handler perform);

  /// Has a collection made behind those that were asked for earlier; refused at once (kResultBusy)
  /// when as many wait as may. REQUIRES: the main thread, while `run` runs; so for `after`.
  void collect(Job job);

  /// Has `item` run on the main thread after `delay`.
  void after(std::chrono::milliseconds delay, std::function<void()> item) {
    loop.after(delay, std::move(item));
  }

 private:
  using Clock = std::chrono::steady_clock;

  void serve(dbus::Service::Handler perform);
  void startNext();
  [[nodiscard]] collection::CollectionOutcome makeCollection() const;
  void finish(const collection::CollectionOutcome& outcome);
  void stop();
  void end();
  void fail(const std::string& text);
  void setServerState(const char* state);

  const std::string name;
  const dbus::Peer peer;
  const collection::DevicePaths paths;
  const collection::Limits limits;
  const collection::Collector collector;

  dbus::EventLoop loop;
  WorkList work;
  std::thread worker;  // serves `work`
  std::atomic<bool> stopping = false;

  // Of the main thread. `running` is read by the worker too, which has its work only while it
  // stands.
  std::optional<dbus::Service> service;
  std::deque<Job> waiting;
  std::optional<Job> running;
  int exitStatus = 0;
};

}  // namespace services
