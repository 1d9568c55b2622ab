#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "collection/Failure.h"
#include "platform/dbus/EventLoop.h"
#include "platform/dbus/Peer.h"
#include "platform/dbus/Service.h"
#include "platform/tasks/WorkList.h"

namespace services {

/// How a service that collects logs starts, runs and stops. The main thread serves the bus; what
/// takes time runs, one piece after the other, on a thread beside it. After SIGTERM, SIGINT or the
/// loss of the bus, new calls are refused (kResultStopping) and the work that has been submitted is
/// finished before `run` returns.
class CollectingService {
 public:
  /// `name` stands before messages on standard error. REQUIRES: the process has one thread so far.
  /// Throws std::system_error when the system has no descriptors or threads left.
  CollectingService(std::string name, const dbus::Peer& servicePeer);
  CollectingService(const CollectingService&) = delete;
  CollectingService& operator=(const CollectingService&) = delete;

  /// Waits for the thread to end, so that nothing runs beside the end of the process.
  ~CollectingService();

  /// Takes the peer's name on the bus, calls `prepare`, and serves calls with `perform`. Returns
  /// the exit status of the process: 0 after a signal; 1, after one line on standard error, when
  /// there is no bus, the name is taken, `prepare` fails or the bus is lost.
  int run(const std::function<collection::Failure()>& prepare, dbus::Service::Handler perform);

  /// Has `item` run behind everything submitted earlier, off the main thread. REQUIRES: the main
  /// thread, while `run` runs; so for `after`.
  void submit(std::function<void()> item) { work.push(std::move(item)); }

  /// Has `item` run on the main thread. Callable from any thread while `run` runs.
  void post(std::function<void()> item) { loop.post(std::move(item)); }

  /// Has `item` run on the main thread after `delay`.
  void after(std::chrono::milliseconds delay, std::function<void()> item) {
    loop.after(delay, std::move(item));
  }

 private:
  void serve(const std::function<collection::Failure()>& prepare, dbus::Service::Handler perform);
  void stop();
  void fail(const std::string& text);
  void setServerState(const char* state);

  const std::string programName;
  const dbus::Peer peer;
  dbus::EventLoop loop;
  WorkList work;
  std::thread worker;  // serves `work`
  std::optional<dbus::Service> service;
  bool stopping = false;
  int exitStatus = 0;
};

}  // namespace services
