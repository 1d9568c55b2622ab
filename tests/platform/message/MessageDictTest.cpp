#include "platform/message/MessageDict.h"

#include <gtest/gtest.h>

#include <vector>

#include "platform/message/Utf8.h"

namespace {

TEST(MessageDict, KeepsTheOrderInWhichKeysWereFirstSetAndTakesManyInLittleTime) {
  constexpr std::size_t kKeys = 300'000;
  MessageDict dict;
  for (std::size_t round = 0; round < 2; ++round) {  // the second one finds them all
    for (std::size_t i = 0; i < kKeys; ++i) {
      dict.set(std::to_string(i), std::to_string(i + round));
    }
    ASSERT_EQ(dict.entries().size(), kKeys);
    MessageDict copy = dict;
    copy.set("0", "copied");
    copy.set("new", true);
    EXPECT_EQ(copy.entries().size(), kKeys + 1);
    EXPECT_EQ(copy.text("0", ""), "copied");
    for (const std::size_t i : {std::size_t{0}, std::size_t{40}, kKeys - 1}) {
      const MessageDict::Entry expected(std::to_string(i), std::to_string(i + round));
      EXPECT_EQ(dict.entries()[i], expected);
    }
  }
}

TEST(MessageDict, TypedReadsFallBackOnOtherKinds) {
  const std::tuple<MessageValue, std::string, bool, std::int64_t> cases[] = {
      {{}, "none", true, -1},
      {"", "", true, -1},
      {false, "none", false, -1},
      {INT64_MIN, "none", true, INT64_MIN}};
  for (const auto& [value, text, boolean, integer] : cases) {
    MessageDict dict;
    dict.set("key", value);
    EXPECT_EQ(dict.text("key", "none"), text);
    EXPECT_EQ(dict.boolean("key", true), boolean);
    EXPECT_EQ(dict.integer("key", -1), integer);
    EXPECT_EQ(dict.text("ke", "none"), "none");
  }
}

TEST(MessageValue, TextThatNoMessageCanCarryIsNull) {
  using std::string_literals::operator""s;
  // The least and the greatest character of each length, and the neighbours of the surrogates.
  for (const char* const text :
       {"", "\x01 \n\x7f", "\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80",
        "\xef\xbf\xbd", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbd", "a\xc3\xa4\xe2\x82\xacz"}) {
    const MessageValue value(text);
    ASSERT_NE(value.text(), nullptr) << testing::PrintToString(text);
    EXPECT_EQ(*value.text(), text);
  }
  const std::string broken[] = {
      "\0"s,          "a\0"s,                                  // NUL
      "\x80",         "\xff",         "\xf8\x88\x80\x80\x80",  // no lead byte
      "\xc3",         "\xe2\x82",     "\xf0\x9f\x93",          // cut off
      "\xc3\xc3",     "\xe2\x82z",    "\xf0\x9f\x93z",         // no continuation byte
      "\xc0\x80",     "\xc1\xbf",     "\xe0\x9f\xbf",         "\xf0\x8f\xbf\xbf",  // overlong
      "\xed\xa0\x80", "\xed\xbf\xbf", "\xf4\x90\x80\x80",   // surrogates, too great
      "\xef\xb7\x90", "\xef\xbf\xbe", "\xf4\x8f\xbf\xbf"};  // noncharacters
  for (const std::string& bytes : broken) {
    EXPECT_TRUE(MessageValue(bytes).isNull()) << testing::PrintToString(bytes);
    EXPECT_TRUE(MessageValue("a" + bytes + "z").isNull()) << testing::PrintToString(bytes);
  }
  // Nothing behind the end is looked at: the address sanitizer sees it.
  const std::vector<char> cut = {'\xe2', '\x82'};
  EXPECT_FALSE(isMessageText({cut.data(), cut.size()}));
}

}  // namespace
