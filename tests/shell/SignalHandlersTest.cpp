#include "shell/SignalHandlers.h"

#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <string>

namespace {

/// The signals are dispatched by hand, not raised: these handlers do more than a signal may.
TEST(SignalHandlers, RunInOrderOfRegistration) {
  gSignalHandlers.clear();
  std::signal(SIGUSR1, SIG_DFL);
  registerSignalHandler(SIGUSR1, {});
  EXPECT_TRUE(gSignalHandlers.empty());

  std::string calls;
  const auto counted = std::make_shared<int>();
  registerSignalHandler(SIGUSR1, [&calls, held = counted](int signal) {
    for (int i = 0; i < 100; ++i) {  // the list grows under the handler that is being run
      registerSignalHandler(signal, [&](int) { calls += "added"; });
    }
    // No copy of it is made for the run.
    calls += std::to_string(signal) + (held.use_count() == 2 ? " first " : " copied ");
  });
  EXPECT_EQ(std::signal(SIGUSR1, SIG_DFL), dispatchSignal);
  registerSignalHandler(SIGUSR1, [&](int) { calls += "second"; });
  dispatchSignal(SIGUSR1);
  EXPECT_EQ(calls, std::to_string(SIGUSR1) + " first second");
  EXPECT_EQ(std::signal(SIGUSR1, SIG_DFL), SIG_DFL) << "only the first one installs";
  dispatchSignal(SIGUSR2);
  EXPECT_FALSE(gSignalHandlers.contains(SIGUSR2));
}

}  // namespace
