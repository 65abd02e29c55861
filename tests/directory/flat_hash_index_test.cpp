#include "directory/flat_hash_index.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>

namespace {

using qb::directory::FlatHashIndex;

std::multiset<int> Values(const FlatHashIndex<int>& index, uint32_t hash) {
  std::multiset<int> out;
  index.ForEach(hash, [&](int v) { out.insert(v); });
  return out;
}

TEST(FlatHashIndex, EqualHashesKeepAllTheirValues) {
  FlatHashIndex<int> index;
  for (int v = 0; v < 50; ++v) index.Insert(7, v);
  index.Insert(8, 100);
  EXPECT_EQ(Values(index, 7).size(), 50u);
  EXPECT_TRUE(index.Erase(7, 10));
  EXPECT_FALSE(index.Erase(7, 10));
  EXPECT_EQ(Values(index, 7).count(10), 0u);
  EXPECT_EQ(Values(index, 7).size(), 49u);
  EXPECT_EQ(Values(index, 8), std::multiset<int>{100});
  EXPECT_TRUE(Values(index, 9).empty());
}

// Erasing from the middle of probe runs must leave every other entry
// reachable: compare with a plain multimap through many random steps.
TEST(FlatHashIndex, MatchesAMultimapThroughInsertsAndErases) {
  FlatHashIndex<int> index;
  std::multimap<uint32_t, int> model;
  std::mt19937 random(12345);
  for (int step = 0; step < 20000; ++step) {
    const uint32_t hash = random() % 300;  // many collisions, long runs
    if (random() % 3 != 0 || model.empty()) {
      index.Insert(hash, step);
      model.emplace(hash, step);
    } else {
      auto it = model.begin();
      std::advance(it, random() % model.size());
      ASSERT_TRUE(index.Erase(it->first, it->second));
      model.erase(it);
    }
  }
  EXPECT_EQ(index.Count(), model.size());
  for (uint32_t hash = 0; hash < 300; ++hash) {
    std::multiset<int> expected;
    for (auto [it, end] = model.equal_range(hash); it != end; ++it) expected.insert(it->second);
    ASSERT_EQ(Values(index, hash), expected) << hash;
  }
}

}  // namespace
