// The compact id table of simulated devices: objects found by id and by
// path through moves, removals and the compaction of its text buffer.
#include <gtest/gtest.h>

#include <string>

#include "platform/portable/sim_id_table.h"

namespace qbtest {
namespace {

namespace sim = qb::portable::sim;

std::string PathOf(const sim::IdTable& t, uint64_t handle) {
  std::string rel;
  return t.PathOf(handle, &rel) ? rel : "<none>";
}

uint64_t At(const sim::IdTable& t, const std::string& rel) {
  uint64_t h = 0;
  return t.HandleAt(rel, &h) ? h : UINT64_MAX;
}

TEST(IdTableIds, OnlyTheDevicesOwnFormIsAnId) {
  uint64_t h = 0;
  ASSERT_TRUE(sim::HandleOfId("o1F0", &h));
  EXPECT_EQ(h, 0x1F0u);
  EXPECT_EQ(sim::IdOfHandle(h), "o1F0");
  ASSERT_TRUE(sim::HandleOfId("o0", &h));
  EXPECT_EQ(h, 0u);
  for (const char* bad : {"o", "o01F0", "o1f0", "p100", "o1G", "o12345678901234567", "", "s10001"})
    EXPECT_FALSE(sim::HandleOfId(bad, &h)) << bad;
}

TEST(IdTable, FindsObjectsByIdAndPathThroughMovesAndRemovals) {
  sim::IdTable t;
  t.Add(0x100, "{A}", 1, 11, "card/a.jpg");
  t.Add(0x101, "{B}", 0, 0, "card/dir");
  t.Add(0x102, "{C}", 2, 22, "card/dir/c.txt");
  EXPECT_EQ(t.PathCount(), 3u);
  EXPECT_EQ(At(t, "card/dir/c.txt"), 0x102u);
  sim::IdTable::Entry e;
  ASSERT_TRUE(t.EntryOf(0x100, &e));
  EXPECT_EQ(e.puid, "{A}");
  EXPECT_EQ(e.flags, 1u);
  EXPECT_EQ(e.created, 11u);

  t.SetPath(0x100, "card/dir/a.jpg");
  EXPECT_FALSE(t.HasPath("card/a.jpg"));
  EXPECT_EQ(PathOf(t, 0x100), "card/dir/a.jpg");
  t.SetAttributes(0x100, 3, 33);
  ASSERT_TRUE(t.EntryOf(0x100, &e));
  EXPECT_EQ(e.flags, 3u);
  EXPECT_EQ(e.puid, "{A}");

  // Without a path an object is found by its id only.
  t.DropPath(0x102);
  EXPECT_TRUE(t.HasId(0x102));
  EXPECT_FALSE(t.HasPath("card/dir/c.txt"));
  EXPECT_EQ(PathOf(t, 0x102), "<none>");
  EXPECT_EQ(t.PathCount(), 2u);

  // A new object at a path another one holds takes the path.
  t.Add(0x103, "{D}", 0, 0, "card/dir/a.jpg");
  EXPECT_EQ(At(t, "card/dir/a.jpg"), 0x103u);
  EXPECT_EQ(PathOf(t, 0x100), "<none>");

  t.Erase(0x101);
  EXPECT_FALSE(t.HasId(0x101));
  EXPECT_FALSE(t.HasPath("card/dir"));
  // The freed record serves the next object; the others are untouched.
  t.Add(0x104, "{E}", 0, 0, "card/e.png");
  EXPECT_EQ(At(t, "card/e.png"), 0x104u);
  EXPECT_EQ(At(t, "card/dir/a.jpg"), 0x103u);
  ASSERT_TRUE(t.EntryOf(0x104, &e));
  EXPECT_EQ(e.puid, "{E}");
}

TEST(IdTable, SubtreeHoldsEverythingBelowAFolderAndNothingBeside) {
  sim::IdTable t;
  t.Add(1, "p", 0, 0, "s/a");
  t.Add(2, "p", 0, 0, "s/a/x.txt");
  t.Add(3, "p", 0, 0, "s/a/deep/down/y.txt");  // no record for its folders
  t.Add(4, "p", 0, 0, "s/ab/z.txt");           // beside "s/a", not below it
  t.Add(5, "p", 0, 0, "s/a.txt");
  const auto below = t.Subtree("s/a");
  ASSERT_EQ(below.size(), 3u);
  EXPECT_EQ(below[0], (std::pair<std::string, uint64_t>{"s/a", 1}));
  EXPECT_EQ(below[1].second, 3u);
  EXPECT_EQ(below[2].second, 2u);
  EXPECT_EQ(t.Subtree("s/a.txt").size(), 1u);
  EXPECT_EQ(t.Subtree("s/a/deep").size(), 1u);  // found although not known itself
  EXPECT_TRUE(t.Subtree("s/none").empty());
  t.Erase(3);
  EXPECT_TRUE(t.Subtree("s/a/deep").empty());
}

// Every rename leaves the old text behind; the buffer is compacted from
// time to time, and every record must still read its own texts.
TEST(IdTable, ManyRenamesKeepEveryTextWhileTheBufferIsCompacted) {
  sim::IdTable t;
  const std::string longDir = "storage/" + std::string(200, 'd');
  constexpr uint64_t kObjects = 2000;
  for (uint64_t i = 0; i < kObjects; ++i)
    t.Add(i, "{P" + std::to_string(i) + "}", 0, i, longDir + "/f" + std::to_string(i));
  for (int round = 1; round <= 6; ++round)
    for (uint64_t i = 0; i < kObjects; ++i)
      t.SetPath(i, longDir + std::to_string(round) + "/f" + std::to_string(i));
  for (uint64_t i = 0; i < kObjects; ++i) {
    const std::string rel = longDir + "6/f" + std::to_string(i);
    ASSERT_EQ(PathOf(t, i), rel);
    ASSERT_EQ(At(t, rel), i);
    sim::IdTable::Entry e;
    ASSERT_TRUE(t.EntryOf(i, &e));
    ASSERT_EQ(e.puid, "{P" + std::to_string(i) + "}");
  }
  EXPECT_EQ(t.PathCount(), kObjects);
  EXPECT_FALSE(t.HasPath(longDir + "/f0"));
}

TEST(IdTable, AHundredThousandObjectsAreAllFound) {
  sim::IdTable t;
  constexpr uint64_t kObjects = 100000;
  for (uint64_t i = 0; i < kObjects; ++i)
    t.Add(0x100 + i * 7, "{G}", 0, 0, "s/d" + std::to_string(i / 100) + "/f" + std::to_string(i));
  for (uint64_t i = 0; i < kObjects; i += 2) t.Erase(0x100 + i * 7);
  for (uint64_t i = 0; i < kObjects; ++i) {
    const std::string rel = "s/d" + std::to_string(i / 100) + "/f" + std::to_string(i);
    ASSERT_EQ(t.HasId(0x100 + i * 7), i % 2 == 1) << i;
    ASSERT_EQ(At(t, rel), i % 2 == 1 ? 0x100 + i * 7 : UINT64_MAX) << i;
  }
  EXPECT_EQ(t.PathCount(), kObjects / 2);
  EXPECT_EQ(t.Folders().size(), kObjects / 100);
}

}  // namespace
}  // namespace qbtest
