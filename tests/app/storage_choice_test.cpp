// The storage of an instance and the lists it hands to the next card's
// instance.
#include "app/storage_choice.h"

#include <gtest/gtest.h>

#include "app/storage_list_codec.h"

namespace qb::app {
namespace {

std::vector<StorageInfo> Storages(int n) {
  std::vector<std::string> names, values;
  for (int i = 1; i <= n; ++i) {
    names.insert(names.end(), {"WPD_STORAGE_INDEX", "WPD_OBJECT_ID", "WPD_OBJECT_NAME", "WPD_STORAGE_CAPACITY"});
    values.insert(values.end(), {std::to_string(i), "s" + std::to_string(i), "Card " + std::to_string(i), "100"});
  }
  return StoragesOf(names, values);
}

TEST(StorageChoice, PropertyGroupsBecomeStorages) {
  auto s = Storages(2);
  ASSERT_EQ(s.size(), 2u);
  EXPECT_EQ(s[1].index, "2");
  EXPECT_EQ(s[1].objectId, "s2");
  EXPECT_EQ(s[1].name, "Card 2");
  // Values before the first storage belong to the device.
  EXPECT_TRUE(StoragesOf({"WPD_OBJECT_NAME"}, {"Phone"}).empty());
}

TEST(StorageChoice, ThreeCardsWithoutSelectorTakeTheFirstAndHandOnTwo) {
  StorageChoice c;
  StorageLists lists;
  ASSERT_EQ(SelectStorage(Storages(3), false, 1, false, StorageSelector::kNone, "", &c, &lists), 0);
  EXPECT_TRUE(c.chosen);
  EXPECT_EQ(c.index, 1);
  EXPECT_EQ(c.name, "Card 1");
  EXPECT_EQ(lists.indices, (std::vector<std::string>{"2", "3"}));
  EXPECT_EQ(lists.objectIds, (std::vector<std::string>{"s2", "s3"}));
}

TEST(StorageChoice, SelectorsPickTheirStorageAndAnUnknownOneIsRefused) {
  StorageChoice c;
  StorageLists lists;
  ASSERT_EQ(SelectStorage(Storages(2), false, 1, false, StorageSelector::kIndex, "2", &c, &lists), 0);
  EXPECT_EQ(c.objectId, "s2");
  EXPECT_TRUE(lists.indices.empty());

  StorageChoice byName;
  ASSERT_EQ(SelectStorage(Storages(2), false, 0, false, StorageSelector::kName, "card 1", &byName, &lists), 0);
  EXPECT_EQ(byName.index, 1);

  StorageChoice none;
  EXPECT_EQ(SelectStorage(Storages(2), false, 1, false, StorageSelector::kName, "SD", &none, &lists), -26);
  EXPECT_EQ(SelectStorage(Storages(2), false, 1, false, StorageSelector::kIndex, "3", &none, &lists), -26);
  EXPECT_FALSE(none.chosen);
}

TEST(StorageChoice, WithoutMultiCardSupportOrChainedTheWholeDeviceIsServed) {
  StorageChoice c;
  StorageLists lists;
  EXPECT_EQ(SelectStorage(Storages(2), false, 0, false, StorageSelector::kNone, "", &c, &lists), 0);
  EXPECT_FALSE(c.chosen);
  EXPECT_EQ(SelectStorage(Storages(2), false, 1, true, StorageSelector::kNone, "", &c, &lists), 0);
  EXPECT_FALSE(c.chosen);
  EXPECT_EQ(SelectStorage(Storages(5), false, 1, false, StorageSelector::kNone, "", &c, &lists), 0);
  EXPECT_FALSE(c.chosen);
  SelectStorage(Storages(1), false, 1, false, StorageSelector::kNone, "", &c, &lists);
  EXPECT_EQ(c.onlyStorageName, "Card 1");
}

TEST(StorageChoice, ListsAfterACardHoldOnlyTheLaterCards) {
  StorageLists lists;
  lists.names = {"stale"};
  FillListsAfterCard(Storages(4), 2, &lists);
  EXPECT_EQ(lists.names, (std::vector<std::string>{"Card 3", "Card 4"}));
  FillListsAfterCard(Storages(2), 2, &lists);
  EXPECT_TRUE(lists.names.empty());
}

TEST(StorageChoice, NextCardLineReplacesTheLetterAndAppendsTheLists) {
  StorageLists lists;
  FillListsAfterCard(Storages(3), 1, &lists);
  NextCardRequest r;
  r.ownLine = "/usr/bin/quillbox /i dev1 /l E /f \"<P>\" /n old /c old /r old /y 00020000 /o D /a 2";
  r.nextLetter = 'F';
  r.currentLetter = 'E';
  r.cardIndex = 2;
  r.structureFlags = 0x00020000;
  std::string line = NextCardLine(r, lists);
  EXPECT_EQ(line.find("/usr/bin/quillbox /i dev1 /l F /f \"<P>\" /n "), 0u) << line;
  EXPECT_EQ(line.find("old"), std::string::npos);
  EXPECT_NE(line.find(" /y 00020000 /o E /a 3"), std::string::npos) << line;
  size_t n = line.find(" /n ") + 4;
  auto names = DecodeStorageList(line.substr(n, line.find(' ', n) - n));
  ASSERT_TRUE(names);
  EXPECT_EQ(*names, (std::vector<std::string>{"Card 2", "Card 3"}));

  r.noWait = true;
  EXPECT_EQ(NextCardLine(r, lists).find(" /o "), std::string::npos);
}

TEST(StorageChoice, NextCardLineRefusesWhatCannotBeContinued) {
  StorageLists lists;
  FillListsAfterCard(Storages(2), 1, &lists);
  NextCardRequest r;
  r.ownLine = "/usr/bin/quillbox /mn Phone E:";
  EXPECT_TRUE(NextCardLine(r, lists).empty());
  r.newLine = true;
  r.executable = "/usr/bin/quillbox";
  r.deviceId = "sim:my phone";
  r.format = "<O><Fo>";
  EXPECT_EQ(NextCardLine(r, lists).find("/usr/bin/quillbox /i \"sim:my phone\" /l ? /f \"<O><Fo>\" /n "), 0u);
  lists.names.push_back("extra");
  EXPECT_TRUE(NextCardLine(r, lists).empty());
}

}  // namespace
}  // namespace qb::app
