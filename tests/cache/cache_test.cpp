// The cache index, its validation against the device file and the purge
// rules, on a real cache folder in a fresh home.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "cache/cache.h"
#include "support/test_home.h"

namespace {

namespace fs = std::filesystem;

WIN32_FIND_DATAW DeviceFile(const std::string& name, int64_t size, uint64_t created) {
  WIN32_FIND_DATAW fd;
  fd.cFileName = name;
  fd.SetFileSize(size);
  fd.ftCreationTime = FILETIME::From(created);
  fd.ftLastWriteTime = FILETIME::From(created + 1);
  return fd;
}

void WriteFile(const std::string& path, size_t size) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << std::string(size, 'x');
}

// Gives a file a last-write time `age` seconds in the past.
void Age(const fs::path& path, int age) {
  fs::last_write_time(path, fs::file_time_type::clock::now() - std::chrono::seconds(age));
}

class CacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_ = (home_ / "cache").string();
    fs::create_directories(folder_);
    table_.SetMapped('f');
  }
  qbtest::ScopedHome home_;
  std::string folder_;
  CLocalCacheTable table_;
};

TEST_F(CacheTest, AddFindAndDeleteKeepTheCounterInStep) {
  CCache cache(folder_, 'F', "dev", &table_);
  const WIN32_FIND_DATAW fd = DeviceFile("IMG_0001.JPG", 1000, 5);
  CCacheItem* item = cache.Add("DCIM\\IMG_0001", &fd);
  ASSERT_NE(item, nullptr);
  EXPECT_EQ(item->sLocalPath, folder_ + "/f/DCIM/IMG_0001.JPG");
  EXPECT_EQ(cache.GetCacheSize(), 1000u);
  // Adding it again gives the same item and counts nothing.
  EXPECT_EQ(cache.Add("DCIM\\IMG_0001", &fd), item);
  EXPECT_EQ(cache.GetCacheSize(), 1000u);
  EXPECT_EQ(cache.Find("dcim\\img_0001", "img_0001.jpg"), item);
  EXPECT_EQ(cache.Add("x", nullptr), nullptr);
  // Without the flag the file and the counter stay.
  WriteFile(item->sLocalPath, 1000);
  const std::string path = item->sLocalPath;
  cache.Delete(&item, 0);
  EXPECT_EQ(item, nullptr);
  EXPECT_TRUE(fs::exists(path));
  EXPECT_EQ(cache.GetCacheSize(), 1000u);
  item = cache.Add("DCIM\\IMG_0001", &fd);
  cache.Delete(&item, 1);
  EXPECT_FALSE(fs::exists(path));
  EXPECT_EQ(cache.GetCacheSize(), 1000u);  // the first delete left its count
  EXPECT_EQ(cache.Find("DCIM\\IMG_0001", "IMG_0001.JPG"), nullptr);
}

TEST_F(CacheTest, RenamedCopyMovesWithItsNameAndReplacesAStaleOne) {
  CCache cache(folder_, 'F', "dev", &table_);
  const WIN32_FIND_DATAW a = DeviceFile("a.txt", 300, 5), b = DeviceFile("b.txt", 200, 6);
  CCacheItem* moved = cache.Add("doc\\a", &a);
  CCacheItem* stale = cache.Add("doc\\b", &b);
  WriteFile(moved->sLocalPath, 300);
  WriteFile(stale->sLocalPath, 200);
  const std::string from = moved->sLocalPath;
  ASSERT_TRUE(cache.Rename(moved, "new\\b", "b.txt"));
  ASSERT_TRUE(cache.Rename(moved, "doc\\b", "b.txt"));
  EXPECT_EQ(moved->sLocalPath, folder_ + "/f/doc/b.txt");
  EXPECT_EQ(fs::file_size(moved->sLocalPath), 300u) << "the renamed copy took the place of the stale one";
  EXPECT_FALSE(fs::exists(from));
  EXPECT_EQ(cache.Find("doc\\b", "B.TXT"), moved);
  EXPECT_EQ(cache.Find("doc\\a", "a.txt"), nullptr);
  EXPECT_EQ(cache.GetCacheSize(), 300u) << "the stale copy's size left the counter";
  // A copy not written yet keeps its entry under the new name.
  CCacheItem* empty = cache.Add("doc\\c", &a);
  EXPECT_TRUE(cache.Rename(empty, "doc\\d", "d.txt"));
  EXPECT_EQ(cache.Find("doc\\d", "d.txt"), empty);
}

TEST_F(CacheTest, ValidateAcceptsOnlyACompleteCopyOfTheSameDeviceFile) {
  CCache cache(folder_, 'f', "dev", &table_);
  const WIN32_FIND_DATAW fd = DeviceFile("a.bin", 10, 1234567);
  CCacheItem* item = cache.Add("a", &fd);
  EXPECT_EQ(CCacheItem::Validate(item, fd), 0);  // no local file
  WriteFile(item->sLocalPath, 10);
  EXPECT_EQ(CCacheItem::Validate(item, fd), 0);  // not marked complete
  ASSERT_TRUE(SetCopyCreationTime(item->sLocalPath, fd.ftCreationTime));
  EXPECT_EQ(CCacheItem::Validate(item, fd), 1);
  EXPECT_EQ(CCacheItem::Validate(item, DeviceFile("a.bin", 11, 1234567)), 0);  // size changed
  EXPECT_EQ(CCacheItem::Validate(item, DeviceFile("a.bin", 10, 7654321)), 0);  // created changed
  WriteFile(item->sLocalPath, 9);  // a partial copy with the marker left
  EXPECT_EQ(CCacheItem::Validate(item, fd), 0);
}

TEST_F(CacheTest, RebuildFindsTheCopiesOnDisk) {
  WriteFile(folder_ + "/f/DCIM/a.jpg", 100);
  WriteFile(folder_ + "/f/b", 50);
  SetCopyCreationTime(folder_ + "/f/DCIM/a.jpg", FILETIME::From(99));
  CCache cache(folder_, 'f', "dev", &table_);
  cache.Rebuild(folder_, 'f');
  EXPECT_EQ(cache.Count(), 2u);
  EXPECT_EQ(cache.GetCacheSize(), 150u);
  CCacheItem* a = cache.Find("DCIM\\a", "a.jpg");
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(a->rFindData.ftCreationTime, FILETIME::From(99));
  EXPECT_EQ(CCacheItem::Validate(a, DeviceFile("a.jpg", 100, 99)), 1);
  EXPECT_NE(cache.Find("b", "b"), nullptr);
}

TEST_F(CacheTest, PurgeRemovesInactiveFoldersFirstThenTheOldestCopiesButNeverTheNewest) {
  // Folder g belongs to no mapped drive; tmp and a loose file are not ours.
  WriteFile(folder_ + "/g/old.bin", 3000);
  WriteFile(folder_ + "/tmp/keep.bin", 5000);
  WriteFile(folder_ + "/loose.bin", 5000);
  for (int i = 0; i < 5; ++i) {
    WriteFile(folder_ + "/f/c" + std::to_string(i), 1000);
    Age(folder_ + "/f/c" + std::to_string(i), 100 - i);  // c0 oldest
  }
  CCache cache(folder_, 'f', "dev", &table_);
  cache.Rebuild(folder_, 'f');
  cache.Global_Purge(0);  // the table now knows g as well
  EXPECT_FALSE(fs::exists(folder_ + "/g"));
  uint64_t total = 0;
  cache.Global_GetCacheSize(&total, nullptr);
  EXPECT_EQ(total, 5000u);
  cache.SetCacheLimitBytesForTest(4000);
  // used 5000 + needed 1000 > 4000: free 5000 - 3600 + 1000 = 2400 bytes,
  // that is c0, c1 and c2 (the walk stops once more than that is taken).
  cache.Global_AdjustCacheContentToFit(1000);
  EXPECT_FALSE(fs::exists(folder_ + "/f/c0"));
  EXPECT_FALSE(fs::exists(folder_ + "/f/c1"));
  EXPECT_FALSE(fs::exists(folder_ + "/f/c2"));
  EXPECT_TRUE(fs::exists(folder_ + "/f/c3"));
  EXPECT_TRUE(fs::exists(folder_ + "/tmp/keep.bin"));
  EXPECT_TRUE(fs::exists(folder_ + "/loose.bin"));
  cache.Global_GetCacheSize(&total, nullptr);
  EXPECT_EQ(total, 2000u);
  // Even a limit of one byte keeps the newest copy.
  cache.SetCacheLimitBytesForTest(1);
  cache.Global_AdjustCacheContentToFit(1000);
  EXPECT_FALSE(fs::exists(folder_ + "/f/c3"));
  EXPECT_TRUE(fs::exists(folder_ + "/f/c4"));
}

}  // namespace
