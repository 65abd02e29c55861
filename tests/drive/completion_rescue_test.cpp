// Completion waits, the rescue folder and the event worker's changes to
// the tree, without a mounted drive.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "drive/write_side.h"
#include "support/files.h"
#include "support/test_home.h"

namespace {

namespace fs = std::filesystem;

class WriteSideTest : public ::testing::Test {
 protected:
  void SetUp() override {
    state_.sDeviceName = "My/Phone";
    SetDriveState(&state_);
  }
  void TearDown() override { SetDriveState(nullptr); }
  qbtest::ScopedHome home_;
  DriveState state_;
};

TEST_F(WriteSideTest, OneSignalWakesEveryWaitOfTheNameAndAWithdrawnWaitStaysAsleep) {
  auto first = qb::drive::RegisterWait(&state_, "\\DCIM\\a.jpg");
  auto second = qb::drive::RegisterWait(&state_, "\\dcim\\A.JPG");
  auto other = qb::drive::RegisterWait(&state_, "\\DCIM\\b.jpg");
  auto withdrawn = qb::drive::RegisterWait(&state_, "\\DCIM\\a.jpg");
  DiscardEventDone(withdrawn);
  SignalEventDone("\\DCIM\\A.jpg");
  EXPECT_TRUE(first->IsSet());
  EXPECT_TRUE(second->IsSet());
  EXPECT_FALSE(other->IsSet());
  EXPECT_FALSE(withdrawn->IsSet());
  ASSERT_EQ(state_.EventDoneNames.size(), 1u);
  EXPECT_EQ(state_.EventDoneNames[0], "\\DCIM\\b.jpg");
  // A wait that times out is withdrawn: a late signal finds nothing.
  EXPECT_FALSE(qb::drive::AwaitConfirmation(&state_, other, 1));
  EXPECT_TRUE(state_.EventDoneNames.empty());
  EXPECT_TRUE(state_.EventDoneEvents.empty());
}

TEST_F(WriteSideTest, RescuedContentNeverReplacesAnEarlierRescue) {
  const fs::path copy = home_ / "copy.bin";
  std::ofstream(copy) << "first";
  const std::string one = qb::drive::RescueContent(&state_, copy.string(), "\\DCIM\\a.jpg", "test");
  std::ofstream(copy) << "second";
  const std::string two = qb::drive::RescueContent(&state_, copy.string(), "\\DCIM\\a.jpg", "test");
  std::ofstream(copy) << "third";
  const std::string three = qb::drive::RescueContent(&state_, copy.string(), "\\DCIM\\a.jpg", "test");
  const fs::path folder = home_ / "local" / "Quillbox" / "Rescued" / "My_Phone" / "DCIM";
  EXPECT_EQ(fs::path(one), folder / "a.jpg");
  EXPECT_EQ(qbtest::ReadText(one), "first");
  EXPECT_EQ(qbtest::ReadText(two), "second");
  EXPECT_EQ(qbtest::ReadText(three), "third");
  EXPECT_NE(two, three);
  EXPECT_EQ(fs::path(two).parent_path(), folder);
  EXPECT_EQ(fs::path(two).extension(), ".jpg");
  EXPECT_EQ(fs::path(two).filename().string().rfind("a (", 0), 0u) << two;
  // A name at the length limit is rescued too (the copy in the making
  // has a short name of its own).
  const std::string longName(251, 'n');
  const std::string four = qb::drive::RescueContent(&state_, copy.string(), "\\DCIM\\" + longName + ".jpg", "test");
  EXPECT_EQ(fs::path(four), folder / (longName + ".jpg"));
  EXPECT_EQ(qbtest::ReadText(four), "third");
  // A copy that cannot be read is reported, not invented, and leaves
  // nothing half-made behind.
  EXPECT_EQ(qb::drive::RescueContent(&state_, (home_ / "missing").string(), "\\x.txt", "test"), "");
  EXPECT_EQ(std::distance(fs::directory_iterator(folder), {}), 4);
  for (const auto& entry : fs::directory_iterator(folder.parent_path()))
    EXPECT_NE(entry.path().filename().string()[0], '.') << entry.path();
}

// The device's reports of added objects change the tree without asking the
// device (no request worker here: a listing would fail the test).
TEST_F(WriteSideTest, AddedObjectsComeFromTheEventAndARenameReportedAsAnAdditionRenames) {
  state_.pDirectory = std::make_unique<CDirectory>();
  CDirectory& tree = *state_.pDirectory;
  tree.Init("\\", 1);
  ASSERT_EQ(tree.AddDirectory(0, "\\doc\\", "o100", "s1", "o100", 1, 0, 1, nullptr), 1);
  DeviceListingRecord file;
  file.sObjectID = file.sUniqueID = "o101";
  file.sParentID = "o100";
  file.sName = "a";
  file.sExtension = "txt";
  file.sFolderPath = "\\doc\\";
  ASSERT_EQ(tree.AddListingRecord(file), 1);
  tree.Sort(0);
  EventItem added;
  added.dwEvent = EVENT_ITEM_CREATED;
  added.sUniqueID = "o102";
  added.sOriginalName = "new.txt";
  added.sParentID = "o100";
  added.bHasSize = 1;
  added.ullSize = 5;
  auto confirmed = qb::drive::RegisterWait(&state_, "\\doc\\new.txt");
  qb::drive::ProcessItemEvent(&state_, added);
  const DirectoryItem* item = tree.FindFileByUniqueID("o102", 0);
  ASSERT_NE(item, nullptr);
  EXPECT_EQ(item->sFullPath + item->rFindData.cFileName, "\\doc\\new.txt");
  EXPECT_EQ(item->rFindData.FileSize(), 5);
  EXPECT_TRUE(confirmed->IsSet());
  // A rename that the device reports as an added object under its old id.
  EventItem renamed = added;
  renamed.sUniqueID = "o101";
  renamed.sOriginalName = "b.txt";
  auto moveDone = qb::drive::RegisterWait(&state_, "o101");
  qb::drive::ProcessItemEvent(&state_, renamed);
  item = tree.FindFileByUniqueID("o101", 0);
  ASSERT_NE(item, nullptr);
  EXPECT_EQ(item->rFindData.cFileName, "b.txt");
  EXPECT_TRUE(moveDone->IsSet());
}

}  // namespace
