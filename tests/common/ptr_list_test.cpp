#include "common/ptr_list.h"

#include <gtest/gtest.h>

#include <string>

TEST(PtrList, GrowsByTwentyAndReadsNullOutside) {
  PtrList<std::string> list;
  EXPECT_EQ(list.Capacity(), 20u);
  for (int i = 0; i < 21; ++i) list.Emplace(std::to_string(i));
  EXPECT_EQ(list.Count(), 21u);
  EXPECT_EQ(list.Capacity(), 40u);
  EXPECT_EQ(list.Get(-1), nullptr);
  EXPECT_EQ(list.Get(21), nullptr);
  EXPECT_EQ(*list.Get(20), "20");
}

TEST(PtrList, RemovingMovesLaterEntriesDown) {
  PtrList<std::string> list;
  for (const char* s : {"a", "b", "c"}) list.Emplace(s);
  auto taken = list.Take(1);
  ASSERT_TRUE(taken);
  EXPECT_EQ(*taken, "b");
  EXPECT_EQ(*list.Get(1), "c");
  EXPECT_FALSE(list.Delete(5));
  list.Clear();
  EXPECT_EQ(list.Count(), 0u);
}
