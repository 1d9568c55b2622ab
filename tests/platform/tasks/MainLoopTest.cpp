#include "platform/tasks/MainLoop.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

namespace {

TEST(MainLoop, ServesWhatIsPostedUntilItIsStopped) {
  std::string calls;
  const std::thread::id mainThread = std::this_thread::get_id();
  const auto append = [&](char call) {
    return [&calls, call, mainThread] {
      calls += std::this_thread::get_id() == mainThread ? call : '?';
    };
  };
  postToMainLoop(append('a'));
  std::thread poster([&] {
    postToMainLoop(append('b'));
    postToMainLoop([&] {
      postToMainLoop(append('c'));
      stopMainLoop();
    });
  });
  runMainLoop();
  poster.join();
  EXPECT_EQ(calls, "abc");
}

}  // namespace
