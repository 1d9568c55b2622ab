#include "shell/SignalHandlers.h"

#include <gtest/gtest.h>

#include <csignal>
#include <string>

namespace {

// The signals are dispatched by hand, not raised: these handlers do more than a signal may.
TEST(SignalHandlers, RunInOrderOfRegistration) {
  const auto isInstalled = [](int signal) {
    struct sigaction action {};
    sigaction(signal, nullptr, &action);
    return action.sa_handler == dispatchSignal;
  };
  std::string calls;
  registerSignalHandler(SIGUSR1, {});
  EXPECT_FALSE(isInstalled(SIGUSR1));
  EXPECT_TRUE(gSignalHandlers.empty());

  registerSignalHandler(SIGUSR1, [&](int signal) {
    calls += std::to_string(signal) + " first;";
    registerSignalHandler(SIGUSR1, [&](int) { calls += "added;"; });
  });
  registerSignalHandler(SIGUSR1, [&](int) { calls += "second;"; });
  EXPECT_TRUE(isInstalled(SIGUSR1));
  dispatchSignal(SIGUSR1);
  EXPECT_EQ(calls, std::to_string(SIGUSR1) + " first;second;");
  dispatchSignal(SIGUSR2);
  EXPECT_FALSE(gSignalHandlers.contains(SIGUSR2));
}

}  // namespace
