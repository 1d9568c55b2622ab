#include "services/ServiceOptions.h"

#include <gtest/gtest.h>

#include <vector>

namespace services {
namespace {

TEST(ServiceOptionsTest, TakesPositiveNumbersOnly) {
  const struct {
    std::vector<const char*> words;
    bool valid;
  } cases[] = {
      {{}, true},
      {{"--root", "/dev/x", "--keep", "3", "--max-age", "18446744073709551615"}, true},
      {{"--root"}, false},
      {{"--root", ""}, false},
      {{"--keep", "0"}, false},
      {{"--keep", "-1"}, false},
      {{"--keep", "3x"}, false},
      {{"--max-age", "18446744073709551616"}, false},
      {{"--other", "x"}, false},
      {{"word"}, false},
  };
  for (const auto& each : cases) {
    std::vector<const char*> arguments{"service"};
    arguments.insert(arguments.end(), each.words.begin(), each.words.end());
    SCOPED_TRACE(testing::PrintToString(each.words));
    const auto options = readServiceOptions(static_cast<int>(arguments.size()), arguments.data());
    ASSERT_EQ(options.has_value(), each.valid);
    if (each.words.size() == 6) {
      EXPECT_EQ(options->root, "/dev/x");
      EXPECT_EQ(options->limits.number, 3);
    }
  }
}

}  // namespace
}  // namespace services
