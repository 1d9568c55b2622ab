#include "services/CollectingService.h"

#include <string_view>
#include <thread>

#include "platform/client/Constants.h"
#include "platform/dbus/BlockingCall.h"
#include "tests/platform/bus/PrivateBus.h"
#include "tests/support/Files.h"
#include "tests/support/TemporaryDirectory.h"

namespace services {
namespace {

constexpr dbus::Peer kPeer = dbus::kManager;

/// The status of a call, at most for two seconds.
std::int32_t call() {
  std::optional<MessageValue> reply;
  return dbus::callBlocking(kPeer, {"test", 0, "any", {}}, std::chrono::seconds(2), reply).status;
}

/// Has the service stop and finds it refusing, then does not come back.
void hang() {
  kill(getpid(), SIGTERM);
  const std::pair answers(call(), call());
  sd_bus* opened = nullptr;
  char* state = nullptr;
  sd_bus_open_system(&opened);
  sd_bus_get_property_string(opened, kPeer.service, kPeer.path, kPeer.interface,
                             dbus::kServerStateProperty, nullptr, &state);
  if (answers != std::pair(kst::kResultStopping, kst::kResultStopping) || state == nullptr ||
      state != std::string_view(kst::kServerStateStopping)) {
    _exit(9);
  }
  std::this_thread::sleep_for(std::chrono::seconds(100));
}

/// Runs a service, to which a call is made, in the process of a death test.
[[noreturn]] void serve(const std::string& root) {
  CollectingService service("it", kPeer, collection::DevicePaths(root), collection::Limits());
  std::thread([] {
    while (call() == kPeer.notRunning) {
    }
  }).detach();
  const auto main = std::this_thread::get_id();
  _exit(service.run([&](const std::shared_ptr<dbus::PerformCall>& arrived) {
    const auto isAbandoned = [&] {
      if (std::this_thread::get_id() != main) {
        hang();
      }
      return false;
    };
    const auto done = [arrived](const auto& outcome) { answerWith(outcome, "T", *arrived); };
    const collection::CollectionRequest request;
    service.collect({request, requesterOf(*arrived), isAbandoned, done});
  }));
}

TEST(CollectingServiceTest, ACollectionThatHangsIsLeftBehindAndNoOtherBegun) {
  PrivateBus bus;
  bus.start();
  const TemporaryDirectory root;
  writeFile(collection::DevicePaths(root.path).basebandLogs + "/diag.log", "log");
  EXPECT_EXIT(serve(root.path), testing::ExitedWithCode(1),
              "^it: a collection could not be broken off\n$");
}

}  // namespace
}  // namespace services
