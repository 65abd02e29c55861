#include "common/strings.h"

#include <gtest/gtest.h>

TEST(CheckedStrings, CopyCutsToCapacityLessOne) {
  std::string dst;
  EXPECT_TRUE(_TcsCpy(&dst, 6, "hello"));
  EXPECT_EQ(dst, "hello");
  EXPECT_FALSE(_TcsCpy(&dst, 5, "hello"));
  EXPECT_EQ(dst, "hell");
  EXPECT_FALSE(_TcsCpy(nullptr, 5, "x"));
  dst = "keep";
  EXPECT_FALSE(_TcsCpy(&dst, 5, nullptr));
  EXPECT_EQ(dst, "keep");
}

TEST(CheckedStrings, CapacityCountsUtf16Units) {
  std::string dst;
  // U+1F600 takes two UTF-16 units and is never split.
  EXPECT_FALSE(_TcsCpy(&dst, 3, "a\xF0\x9F\x98\x80"));
  EXPECT_EQ(dst, "a");
  EXPECT_TRUE(_TcsCpy(&dst, 4, "a\xF0\x9F\x98\x80"));
  EXPECT_EQ(qb::Utf16Length("\xC3\xA9t\xC3\xA9"), 3u);
}

TEST(CheckedStrings, ConcatenateAndFormat) {
  std::string dst = "ab";
  EXPECT_TRUE(_TcsCat(&dst, 5, "cd"));
  EXPECT_FALSE(_TcsCat(&dst, 5, "ef"));
  EXPECT_EQ(dst, "abcd");
  EXPECT_TRUE(_Stprintf(&dst, 10, "%d-%s", 7, "x"));
  EXPECT_EQ(dst, "7-x");
  EXPECT_FALSE(_Stprintf(&dst, 3, "%d", 12345));
  EXPECT_EQ(dst, "12");
}

TEST(CheckedStrings, Utf16RoundTripAndCaseAZ) {
  const std::string text = "Gr\xC3\xBC\xC3\x9F \xF0\x9F\x98\x80";
  EXPECT_EQ(qb::ToUtf8(qb::ToUtf16(text)), text);
  EXPECT_TRUE(qb::EqualsNoCaseAZ("DCIM\\a.JPG", "dcim\\A.jpg"));
  // Only A-Z fold: accented letters stay distinct.
  EXPECT_FALSE(qb::EqualsNoCaseAZ("\xC3\xA9", "\xC3\x89"));
  EXPECT_LT(qb::CompareNoCaseAZ("abc", "ABD"), 0);
}

TEST(CheckedStrings, BytesThatAreNotUtf8BecomeReplacementCharacters) {
  const std::u16string bad3(3, u'\uFFFD');
  // An encoded surrogate, an overlong NUL and a value past U+10FFFF: each
  // byte becomes one U+FFFD, never a lone surrogate or a NUL.
  EXPECT_EQ(qb::ToUtf16("\xED\xB2\x93"), bad3);
  EXPECT_EQ(qb::ToUtf16("a\xC0\x80"), u"a\uFFFD\uFFFD");
  EXPECT_EQ(qb::ToUtf16("\xF4\x90\x80\x80"), std::u16string(4, u'\uFFFD'));
  EXPECT_EQ(qb::ToUtf16("\xE0\x80\xAF"), bad3);
  // The largest values of each length still decode.
  EXPECT_EQ(qb::ToUtf16("\xF4\x8F\xBF\xBF"), u"\U0010FFFF");
  EXPECT_EQ(qb::ToUtf16("\xEF\xBF\xBD\xED\x9F\xBF"), u"\uFFFD\uD7FF");
  EXPECT_EQ(qb::Utf16Length("\xED\xB2\x93"), 3u);
}
