// The check of an existing cache copy against the device file: a copy that
// holds data the device does not have yet is never thrown away.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "drive/drive_internal.h"
#include "support/test_home.h"

namespace {

namespace fs = std::filesystem;

class ValidateEntryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    table_.SetMapped('q');
    state_.pCache = std::make_unique<CCache>((home_ / "cache").string(), 'q', "dev", &table_);
    item_.sFullName = "\\doc\\a";
    item_.rFindData.cFileName = "a.txt";
    item_.rFindData.SetFileSize(5);
    item_.rFindData.ftCreationTime = FILETIME::From(42);
    entry_ = state_.pCache->Add("doc\\a", &item_.rFindData);
    fs::create_directories(fs::path(entry_->sLocalPath).parent_path());
    std::ofstream(entry_->sLocalPath) << "local data not on the device";
  }
  qbtest::ScopedHome home_;
  CLocalCacheTable table_;
  DriveState state_;
  DirectoryItem item_;
  CCacheItem* entry_ = nullptr;
};

TEST_F(ValidateEntryTest, PendingUploadKeepsTheCopyAStaleCopyIsReplaced) {
  item_.bUploadPending = 1;
  EXPECT_EQ(qb::drive::ValidateExistingCacheEntry(&state_, &entry_, &item_), 1);
  ASSERT_NE(entry_, nullptr);
  EXPECT_TRUE(fs::exists(entry_->sLocalPath));

  item_.bUploadPending = 0;
  item_.bDownloading = 1;  // a running download owns the copy: nothing changes
  EXPECT_EQ(qb::drive::ValidateExistingCacheEntry(&state_, &entry_, &item_), 0);
  EXPECT_TRUE(fs::exists(entry_->sLocalPath));

  item_.bDownloading = 0;
  item_.ullAlreadyDownloaded = 3;
  const std::string path = entry_->sLocalPath;
  EXPECT_EQ(qb::drive::ValidateExistingCacheEntry(&state_, &entry_, &item_), 0);
  EXPECT_FALSE(fs::exists(path));
  ASSERT_NE(entry_, nullptr);  // a fresh entry for the next download
  EXPECT_EQ(item_.ullAlreadyDownloaded, 0u);
}

}  // namespace
