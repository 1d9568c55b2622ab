#include "simulator/SimulatorOptions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace simulator {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::optional<SimulatorOptions> read(std::vector<const char*> words) {
  words.insert(words.begin(), "kst-simulator");
  return readSimulatorOptions(static_cast<int>(words.size()), words.data());
}

TEST(SimulatorOptionsTest, LeavesTheCommandAlone) {
  const auto options = read({"--absent", "helper", "--root", "dir", "--absent", "corvend", "--",
                             "run", "--root", "other", "--"});
  ASSERT_TRUE(options);
  EXPECT_EQ(options->root, "dir");
  EXPECT_THAT(options->absent, ElementsAre("corvend", "helper"));
  EXPECT_THAT(options->command, ElementsAre("run", "--root", "other", "--"));
  EXPECT_THAT(read({})->command, IsEmpty());
}

TEST(SimulatorOptionsTest, RefusesWhatItDoesNotKnow) {
  for (const std::vector<const char*>& words : std::vector<std::vector<const char*>>{
           {"run"}, {"--root"}, {"--conf", ""}, {"--absent", "Corvend"}, {"--other", "x", "--"}}) {
    SCOPED_TRACE(testing::PrintToString(words));
    EXPECT_FALSE(read(words));
  }
}

}  // namespace
}  // namespace simulator
