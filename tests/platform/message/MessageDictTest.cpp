#include "platform/message/MessageDict.h"

#include <gtest/gtest.h>

#include <vector>

#include "platform/message/Utf8.h"

namespace {

TEST(MessageDict, KeepsTheOrderInWhichKeysWereFirstSet) {
  MessageDict dict;
  dict.set("b", "1");
  dict.set("a", true);
  const MessageDict copy = dict;
  dict.set("b", std::int64_t{4});
  EXPECT_EQ(dict.entries(), (std::vector<MessageDict::Entry>{{"b", std::int64_t{4}}, {"a", true}}));
  EXPECT_EQ(copy.entries(), (std::vector<MessageDict::Entry>{{"b", "1"}, {"a", true}}));
}

TEST(MessageDict, ManyKeysTakeLittleTime) {
  constexpr std::int64_t kKeys = 300'000;
  MessageDict dict;
  for (int round = 0; round < 2; ++round) {  // the second one finds them all
    for (std::int64_t i = 0; i < kKeys; ++i) {
      dict.set(std::to_string(i), i + round);
    }
    ASSERT_EQ(dict.entries().size(), kKeys);
    MessageDict copy = dict;
    copy.set("0", "copied");
    copy.set("new", true);
    EXPECT_EQ(copy.entries().size(), kKeys + 1);
    for (const std::int64_t i : {std::int64_t{0}, std::int64_t{40}, kKeys - 1}) {
      EXPECT_EQ(dict.entries()[i], MessageDict::Entry(std::to_string(i), i + round));
    }
  }
}

TEST(MessageDict, TypedReadsFallBackOnOtherKinds) {
  const struct {
    MessageValue value;
    std::string text;
    bool boolean;
    std::int64_t integer;
  } cases[] = {
      {{}, "none", true, -1},
      {"words", "words", true, -1},
      {"", "", true, -1},
      {false, "none", false, -1},
      {INT64_MIN, "none", true, INT64_MIN},
      {MessageDict(), "none", true, -1},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(&test - cases);
    MessageDict dict;
    dict.set("key", test.value);
    EXPECT_EQ(dict.text("key", "none"), test.text);
    EXPECT_EQ(dict.boolean("key", true), test.boolean);
    EXPECT_EQ(dict.integer("key", -1), test.integer);
    EXPECT_EQ(dict.text("ke", "none"), "none");
    ASSERT_NE(dict.find("key"), nullptr);
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
