// Completion waits and the rescue folder, without a mounted drive.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "drive/write_side.h"
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
  static std::string Read(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }
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
  EXPECT_EQ(Read(one), "first");
  EXPECT_EQ(Read(two), "second");
  EXPECT_EQ(Read(three), "third");
  EXPECT_NE(two, three);
  EXPECT_EQ(fs::path(two).parent_path(), folder);
  EXPECT_EQ(fs::path(two).extension(), ".jpg");
  EXPECT_EQ(fs::path(two).filename().string().rfind("a (", 0), 0u) << two;
  // A copy that cannot be read is reported, not invented.
  EXPECT_EQ(qb::drive::RescueContent(&state_, (home_ / "missing").string(), "\\x.txt", "test"), "");
}

}  // namespace
