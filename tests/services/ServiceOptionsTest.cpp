#include "services/ServiceOptions.h"

#include <gtest/gtest.h>

#include <vector>

namespace services {
namespace {

TEST(ServiceOptionsTest, TakesTheRootAndNothingElse) {
  const struct {
    std::vector<const char*> words;
    const char* root;  // null: refused
  } cases[] = {
      {{}, "/"},
      {{"--root", "/dev/x"}, "/dev/x"},
      {{"--root"}, nullptr},
      {{"--root", ""}, nullptr},
      {{"--root", "/a", "--keep", "3"}, nullptr},
      {{"word"}, nullptr},
  };
  for (const auto& each : cases) {
    std::vector<const char*> arguments{"service"};
    arguments.insert(arguments.end(), each.words.begin(), each.words.end());
    SCOPED_TRACE(testing::PrintToString(each.words));
    const auto options = readServiceOptions(static_cast<int>(arguments.size()), arguments.data());
    ASSERT_EQ(options.has_value(), each.root != nullptr);
    if (options) {
      EXPECT_EQ(options->root, each.root);
    }
  }
}

}  // namespace
}  // namespace services
