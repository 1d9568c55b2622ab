#include "platform/text/SplitString.h"

#include <gtest/gtest.h>

TEST(SplitStringTest, LeavesOutEmptyPieces) {
  using Strings = std::vector<std::string>;
  EXPECT_EQ(splitString("", '/'), Strings{});
  EXPECT_EQ(splitString("//", '/'), Strings{});
  EXPECT_EQ(splitString("a", '/'), Strings{"a"});
  EXPECT_EQ(splitString("/a//bb\n/c d\xff/", '/'), (Strings{"a", "bb\n", "c d\xff"}));
}
