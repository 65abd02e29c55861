#include "directory/name_hash.h"

#include <gtest/gtest.h>

#include "directory/wildcard.h"

namespace {

using qb::directory::NameHash;
using qb::directory::WildcardMatch;

TEST(NameHash, KnownValuesAndEmptyInputs) {
  EXPECT_EQ(NameHash("abc"), 0x352441C2u);
  EXPECT_EQ(NameHash(""), 0u);
  EXPECT_EQ(NameHash(static_cast<const char*>(nullptr)), 0u);
  EXPECT_NE(NameHash("ABC"), NameHash("abc")) << "the hash is case-sensitive";
}

TEST(NameHash, TakesTheLowByteOfEachUtf16Unit) {
  // U+0161 (s with caron) has the low byte 0x61, the letter a.
  EXPECT_EQ(NameHash("\xC5\xA1" "bc"), NameHash("abc"));
  // U+00E9 is one unit with the low byte 0xE9 (CRC-32 of that byte), not
  // its two UTF-8 bytes.
  EXPECT_EQ(NameHash("\xC3\xA9"), 0x0BD4B551u);
}

TEST(Wildcard, ExcludeListPatterns) {
  EXPECT_TRUE(WildcardMatch("thm", "THM"));
  EXPECT_TRUE(WildcardMatch("jpg", "j?g"));
  EXPECT_FALSE(WildcardMatch("jpeg", "j?g"));
  EXPECT_TRUE(WildcardMatch("", "*"));
  EXPECT_TRUE(WildcardMatch("anything", "*"));
  EXPECT_TRUE(WildcardMatch("jpg", "*g"));
  EXPECT_TRUE(WildcardMatch("tmp", "t*"));
  EXPECT_FALSE(WildcardMatch("", "t*"));
  EXPECT_FALSE(WildcardMatch("jpg", "jp"));
  EXPECT_FALSE(WildcardMatch("jp", "jpg"));
  // No backtracking: the star stops at the first "p".
  EXPECT_FALSE(WildcardMatch("ppg", "*pg"));
  EXPECT_FALSE(WildcardMatch(nullptr, "*"));
}

}  // namespace
