#include "directory/directory.h"

#include <gtest/gtest.h>

#include "directory/name_hash.h"
#include "test_support.h"

namespace {

using dirtest::At;
using dirtest::ScopedTimeZone;

class TreeTest : public ::testing::Test {
 protected:
  ScopedTimeZone zone_{"UTC0"};
  CDirectory tree_;

  // A file as the content listing adds it: the object id is full name, item
  // id and unique id.
  int AddListed(const char* id, const char* name, const char* ext, const char* folder,
                FILETIME t = At(2013, 1, 1, 10)) {
    return tree_.AddFile(name, id, "p", ext, 10, &t, id, id, folder, 0, 1);
  }
  DirectoryItem* File(int i) { return tree_.m_pFiles->Get(i); }
  DirectoryItem* Folder(int i) { return tree_.m_pPersistFolders->Get(i); }
};

TEST_F(TreeTest, StartsWithTheRootFolderOnly) {
  ASSERT_EQ(tree_.m_pPersistFolders->Count(), 1u);
  EXPECT_EQ(tree_.m_pFiles->Count(), 0u);
  EXPECT_EQ(tree_.m_pStorageRoots->Count(), 0u);
  const DirectoryItem* root = Folder(0);
  EXPECT_EQ(root->sFullName, "\\");
  EXPECT_EQ(root->rFindData.cFileName, "\\");
  EXPECT_EQ(root->sFullPath, "");
  EXPECT_EQ(root->rFindData.dwFileAttributes, FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_READONLY);
  EXPECT_TRUE(root->bPersistent && root->bSystem && root->bPopulated);
  EXPECT_FALSE(root->sItemID.has_value());
  EXPECT_STREQ(tree_.GetNamingPattern(), "<P><O><Fo>");
  EXPECT_TRUE(tree_.KeepsOriginalPath());
  EXPECT_FALSE(CDirectory::KeepsOriginalPath(nullptr));
}

TEST_F(TreeTest, FileRecordIsFilledFromTheListing) {
  const FILETIME t = At(2013, 5, 4, 10, 59, 56);
  ASSERT_EQ(tree_.AddFile("IMG:1", "o:17", "o3", "JPG", 1234, &t, "o:17", "o:17", "\\DC:IM\\", 1, 2), 1);
  const DirectoryItem* f = File(0);
  EXPECT_EQ(f->sFullName, "o17") << "colons are removed from the full name";
  EXPECT_EQ(f->sOriginalDeviceName, "o:17");
  EXPECT_EQ(f->sFullPath, "\\DCIM\\");
  EXPECT_EQ(f->sOriginalItemName, "IMG:1");
  EXPECT_EQ(f->rFindData.cFileName, "IMG1.JPG");
  EXPECT_EQ(f->dwOriginalItemNameHash, qb::directory::NameHash("IMG:1"));
  // Second 56 and later count as the next minute, even when that reads 60.
  EXPECT_EQ(f->sUniqueName, "IMG:1-201305041060\\DC:IM\\");
  EXPECT_EQ(f->dwUniqueNameHash, qb::directory::NameHash(f->sUniqueName));
  EXPECT_EQ(f->rFindData.FileSize(), 1234);
  EXPECT_EQ(f->rFindData.dwFileAttributes, 1u);
  EXPECT_EQ(f->nStorageIdx, 2);
  EXPECT_EQ(*f->sItemID, "o:17");
  EXPECT_EQ(f->sParentID, "o3");
  EXPECT_EQ(f->rFindData.ftCreationTime, t) << "bias 0 in UTC";
  EXPECT_EQ(f->rFindData.ftLastWriteTime, t);
  EXPECT_EQ(f->rFindData.ftLastAccessTime.Value(), 0u);
  EXPECT_EQ(f->pRegionsToDownload, nullptr) << "made by the first reader that waits";
  EXPECT_EQ(f->rFindData.cAlternateFileName, "");
  EXPECT_FALSE(f->bPersistent);
  EXPECT_TRUE(f->bPopulated);

  const FILETIME t55 = At(2013, 5, 4, 10, 59, 55);
  ASSERT_EQ(tree_.AddFile("B", "o18", "o3", "", -1, &t55, "o18", "o18", nullptr, 0, 1), 1);
  EXPECT_EQ(File(1)->sUniqueName, "B-201305041059");
  EXPECT_EQ(File(1)->rFindData.cFileName, "B") << "no dot without an extension";
  EXPECT_EQ(File(1)->rFindData.FileSize(), 0) << "size -1 is unknown";
}

TEST_F(TreeTest, LongNamesAreCutAtTheirCapacity) {
  const std::string longName(400, 'n');
  const std::string longPath = "\\" + std::string(600, 'p') + "\\";
  ASSERT_EQ(tree_.AddFile(longName.c_str(), longPath.c_str(), "p", "jpg", 1, nullptr, "id1", "id1",
                          longPath.c_str(), 0, 1), 1);
  const DirectoryItem* f = File(0);
  EXPECT_EQ(f->sOriginalItemName.size(), 259u);
  EXPECT_EQ(f->rFindData.cFileName.size(), 259u);
  EXPECT_EQ(f->sFullName.size(), 519u);
  EXPECT_EQ(f->sFullPath.size(), 259u);
  EXPECT_EQ(f->sUniqueName.size(), 519u);
  const std::string longId(150, 'i');
  ASSERT_EQ(tree_.AddFile("x", "y", longId.c_str(), "", 1, nullptr, "id2", longId.c_str(), "\\", 0, 1), 1);
  EXPECT_EQ(File(1)->sUniqueID.size(), 99u);
  EXPECT_EQ(File(1)->sParentID.size(), 99u);
}

TEST_F(TreeTest, ExcludeListMatchesExtensionsOnly) {
  tree_.AddExcludePatterns("thm; tmp\t\nx?z");
  EXPECT_EQ(tree_.m_pExcludeList->Count(), 3u);
  EXPECT_EQ(AddListed("o1", "a", "THM", "\\"), 0);
  EXPECT_EQ(AddListed("o2", "thm", "jpg", "\\"), 1) << "the name is not matched";
  EXPECT_EQ(AddListed("o3", "b", "xyz", "\\"), 0);
  EXPECT_EQ(tree_.m_pFiles->Count(), 1u);
  // The lists survive Init.
  tree_.Init("\\", 1);
  EXPECT_EQ(tree_.m_pExcludeList->Count(), 3u);
  tree_.AddExcludePatterns("*");
  EXPECT_EQ(tree_.AddPersistentDirectory(0, 0, "\\DCIM\\", 0, nullptr, "d", "p", "d", 1, 0, 1, nullptr), 0)
      << "a folder's empty extension matches *";
}

TEST_F(TreeTest, DuplicateUniqueIdIsRefused) {
  EXPECT_EQ(AddListed("o1", "a", "jpg", "\\"), 1);
  EXPECT_EQ(AddListed("o1", "b", "jpg", "\\"), 0);
  EXPECT_EQ(tree_.AddPersistentDirectory(0, 0, "\\X\\", 0, nullptr, "o1", "p", "o1", 1, 0, 1, nullptr), 0)
      << "unique ids are unique across files and folders";
  EXPECT_EQ(tree_.m_pFiles->Count(), 1u);
  // Once the first is deleted, the id may come again (and reuses the record).
  File(0)->bDeleted = 1;
  EXPECT_EQ(AddListed("O1", "c", "jpg", "\\"), 1);
  EXPECT_EQ(tree_.m_pFiles->Count(), 1u);
}

TEST_F(TreeTest, DeletedRecordsAreReusedInPlaceFirstInListOrder) {
  for (const char* id : {"o1", "o2", "o3", "o4"}) ASSERT_EQ(AddListed(id, id, "jpg", "\\"), 1);
  DirectoryItem* second = File(1);
  DirectoryItem* fourth = File(3);
  fourth->bDeleted = 1;
  second->bDeleted = 1;
  second->bFileFlagDeleteOnClose = 1;
  second->bUploadPending = 1;
  EXPECT_EQ(tree_.FindFirstEmptyItem(), second);
  ASSERT_EQ(AddListed("o5", "five", "png", "\\"), 1);
  EXPECT_EQ(tree_.m_pFiles->Count(), 4u);
  EXPECT_EQ(File(1), second) << "the record keeps its address and index";
  EXPECT_EQ(*second->sItemID, "o5");
  EXPECT_FALSE(second->bDeleted);
  EXPECT_FALSE(second->bFileFlagDeleteOnClose);
  EXPECT_FALSE(second->bUploadPending);
  EXPECT_EQ(tree_.FindFileByItemID("o2", 1), nullptr) << "the old id is gone with the refill";
  EXPECT_EQ(tree_.FindFileByItemID("o5", 0), second);
  ASSERT_EQ(AddListed("o6", "six", "png", "\\"), 1);
  EXPECT_EQ(File(3), fourth);
  ASSERT_EQ(AddListed("o7", "seven", "png", "\\"), 1);
  EXPECT_EQ(tree_.m_pFiles->Count(), 5u) << "no deleted record left: appended";
  // A flag set and cleared again does not make a record free.
  File(0)->bDeleted = 1;
  File(0)->bDeleted = 0;
  EXPECT_EQ(tree_.FindFirstEmptyItem(), nullptr);
}

TEST_F(TreeTest, RecordHeldByAnOpenIsNotReusedUntilReleased) {
  for (const char* id : {"o1", "o2"}) ASSERT_EQ(AddListed(id, id, "jpg", "\\"), 1);
  DirectoryItem* held = File(0);
  held->nOpenHolds = 1;
  held->bDeleted = 1;
  File(1)->bDeleted = 1;
  EXPECT_EQ(tree_.FindFirstEmptyItem(), File(1)) << "the held record is passed over";
  ASSERT_EQ(AddListed("o3", "three", "jpg", "\\"), 1);
  ASSERT_EQ(AddListed("o4", "four", "jpg", "\\"), 1);
  EXPECT_EQ(tree_.m_pFiles->Count(), 3u);
  EXPECT_EQ(*held->sItemID, "o1") << "the open's object keeps its identity";
  held->nOpenHolds = 0;
  EXPECT_EQ(tree_.FindFirstEmptyItem(), held) << "free again after the last close";
}

TEST_F(TreeTest, DeletedFolderIsReusedEvenByAStorageRoot) {
  ASSERT_EQ(tree_.AddPersistentDirectory(0, 0, "\\A\\", 0, nullptr, "a", "p", "a", 1, 0, 1, nullptr), 1);
  DirectoryItem* a = Folder(1);
  a->bDeleted = 1;
  ASSERT_EQ(tree_.AddPersistentDirectory(1, 0, "\\", 0, nullptr, "s1", "DEV", "s1", 1, 1, 1, nullptr), 1);
  EXPECT_EQ(tree_.m_pStorageRoots->Count(), 0u);
  EXPECT_EQ(Folder(1), a);
  EXPECT_EQ(*a->sItemID, "s1");
  EXPECT_EQ(tree_.FindFileByItemID("s1", 0), a);
}

TEST_F(TreeTest, LookupsAnswerTheFirstMatchInListOrder) {
  // Two files with one item id (no unique ids), differing in case.
  ASSERT_EQ(tree_.AddFile("a", "\\a", "p", "", 1, nullptr, "ID", nullptr, "\\", 0, 1), 1);
  ASSERT_EQ(tree_.AddFile("b", "\\b", "p", "", 1, nullptr, "id", nullptr, "\\", 0, 1), 1);
  ASSERT_EQ(tree_.AddPersistentDirectory(0, 0, "\\F\\", 0, nullptr, "Id", "p", nullptr, 1, 0, 1, nullptr), 1);
  EXPECT_EQ(tree_.FindFileByItemID("iD", 0), File(0));
  File(0)->bPendingDelete = 1;
  EXPECT_EQ(tree_.FindFileByItemID("iD", 0), File(0)) << "pending delete is not looked at";
  File(0)->bDeleted = 1;
  EXPECT_EQ(tree_.FindFileByItemID("iD", 0), File(1));
  EXPECT_EQ(tree_.FindFileByItemID("iD", 1), File(0));
  File(1)->bDeleted = 1;
  EXPECT_EQ(tree_.FindFileByItemID("iD", 0), Folder(1)) << "files first, then folders";
  EXPECT_EQ(tree_.FindFileByItemID(nullptr, 1), nullptr);

  // Inserted first comes first.
  ASSERT_EQ(tree_.AddPersistentDirectory(0, 0, "\\G\\", 0, nullptr, "g1", "p", nullptr, 1, 0, 1, nullptr), 1);
  ASSERT_EQ(tree_.AddPersistentDirectory(0, 1, "\\g\\", 0, nullptr, "g0", "p", nullptr, 1, 0, 1, nullptr), 1);
  EXPECT_EQ(Folder(0)->sFullName, "\\g\\");
  EXPECT_EQ(tree_.FindItemByFullName(1, "\\G\\", 0), Folder(0));
  Folder(0)->bPendingDelete = 1;
  EXPECT_EQ(*tree_.FindItemByFullName(1, "\\G\\", 0)->sItemID, "g1");
  EXPECT_EQ(*tree_.FindItemByFullName(1, "\\G\\", 1)->sItemID, "g0");
}

TEST_F(TreeTest, UniqueIdLookupSkipsStorageRoots) {
  ASSERT_EQ(tree_.AddDirectory(1, "\\", "s1", "DEV", "s1", 1, 1, 1, nullptr), 1);
  EXPECT_EQ(tree_.FindFileByUniqueID("s1", 1), nullptr);
  EXPECT_NE(tree_.FindFileByItemID("s1", 0), nullptr);
  ASSERT_EQ(AddListed("o1", "a", "jpg", "\\"), 1);
  EXPECT_EQ(tree_.FindFileByUniqueID("O1", 0), File(0));
}

TEST_F(TreeTest, FolderAdds) {
  EXPECT_EQ(tree_.AddPersistentDirectory(0, 0, "\\DCIM", 0, nullptr, nullptr, nullptr, nullptr, 1, 0, 0, nullptr), 0);
  EXPECT_EQ(tree_.AddPersistentDirectoryRecursive(0, 0, "\\DCIM", 0, nullptr, nullptr, nullptr, nullptr, 1, 0, 0, nullptr), 0);
  DirectoryItem* out = nullptr;
  ASSERT_EQ(tree_.AddPersistentDirectoryRecursive(0, 0, "\\A\\B\\C\\", 0, &out, nullptr, nullptr, nullptr, 0, 0, 0, nullptr), 1);
  ASSERT_EQ(tree_.m_pPersistFolders->Count(), 4u) << "\\A\\B\\C\\, \\A\\B\\ and \\A\\, no second root";
  EXPECT_EQ(out->sFullName, "\\A\\B\\C\\");
  EXPECT_EQ(out->sOriginalItemName, "C");
  EXPECT_EQ(out->sFullPath, "\\A\\B\\");
  EXPECT_FALSE(out->bPopulated);
  EXPECT_NE(tree_.FindItemByFullName(1, "\\a\\b\\", 0), nullptr);
  EXPECT_NE(tree_.FindItemByFullName(1, "\\A\\", 0), nullptr);

  // The folder part of a path is made sure to exist.
  EXPECT_EQ(tree_.AddDirectoryIfMissing(0, "\\A\\B\\x.jpg", nullptr, nullptr, nullptr, 1, 0, 0, nullptr), 1);
  EXPECT_EQ(tree_.m_pPersistFolders->Count(), 4u);
  EXPECT_EQ(tree_.AddDirectoryIfMissing(0, nullptr, nullptr, nullptr, nullptr, 1, 0, 0, nullptr), 0);
  // A deleted folder that is still populated counts as there ...
  DirectoryItem* b = tree_.FindItemByFullName(1, "\\A\\B\\", 0);
  b->bDeleted = 1;
  b->bPopulated = 1;
  EXPECT_EQ(tree_.AddDirectoryIfMissing(0, "\\A\\B\\y", nullptr, nullptr, nullptr, 1, 0, 0, nullptr), 1);
  EXPECT_EQ(tree_.FindItemByFullName(1, "\\A\\B\\", 0), nullptr);
  // ... an unpopulated one is added again, into its own record.
  b->bPopulated = 0;
  EXPECT_EQ(tree_.AddDirectoryIfMissing(0, "\\A\\B\\y", nullptr, nullptr, nullptr, 1, 0, 0, nullptr), 1);
  EXPECT_EQ(tree_.FindItemByFullName(1, "\\A\\B\\", 0), b);
  EXPECT_EQ(tree_.m_pPersistFolders->Count(), 4u);

  // AddDirectory adds only while the naming keeps the original path.
  tree_.SetNamingPattern("<O><Fo>");
  EXPECT_EQ(tree_.AddDirectory(0, "\\Q\\", "q", "p", "q", 1, 0, 1, nullptr), 0);
  EXPECT_EQ(tree_.FindItemByFullName(1, "\\Q\\", 1), nullptr);
}

TEST_F(TreeTest, ListingRecordsReachTheTree) {
  DeviceListingRecord storage;
  storage.kind = DeviceListingRecord::Kind::Storage;
  storage.sObjectID = storage.sUniqueID = "s1";
  storage.sParentID = "DEVICE";
  storage.sName = "Card";
  storage.sFolderPath = "\\";
  storage.nStorage = 1;
  storage.bChildrenListed = true;
  EXPECT_EQ(tree_.AddListingRecord(storage), 1);
  ASSERT_EQ(tree_.m_pStorageRoots->Count(), 1u);
  EXPECT_TRUE(tree_.m_pStorageRoots->Get(0)->bSystem);

  DeviceListingRecord folder = storage;
  folder.kind = DeviceListingRecord::Kind::Folder;
  folder.sObjectID = folder.sUniqueID = "o1";
  folder.sParentID = "s1";
  folder.sName = "a.b";
  folder.bChildrenListed = false;
  EXPECT_EQ(tree_.AddListingRecord(folder), 1);
  DirectoryItem* ab = tree_.FindFileByItemID("o1", 0);
  ASSERT_NE(ab, nullptr);
  EXPECT_EQ(ab->sFullName, "\\a.b\\");
  EXPECT_FALSE(ab->bPopulated);

  DeviceListingRecord file = folder;
  file.kind = DeviceListingRecord::Kind::File;
  file.sObjectID = file.sUniqueID = "o2";
  file.sParentID = "o1";
  file.sName = "photo";
  file.sExtension = "jpg";
  file.sFolderPath = "\\a.b\\";
  file.ullSize = 300;
  file.bReadOnly = true;
  file.ftTime = At(2020, 2, 3, 4, 5, 6);
  EXPECT_EQ(tree_.AddListingRecord(file), 1);
  EXPECT_EQ(tree_.GetTotalSize(), 300);
  DirectoryItem* photo = tree_.FindFileByItemID("o2", 0);
  ASSERT_NE(photo, nullptr);
  EXPECT_EQ(photo->rFindData.cFileName, "photo.jpg");
  EXPECT_EQ(photo->rFindData.dwFileAttributes, FILE_ATTRIBUTE_READONLY);
  EXPECT_EQ(photo->sFullName, "o2") << "named by Sort";
  tree_.SetRootDir("\\");
  tree_.Sort(0);
  EXPECT_EQ(photo->sFullName, "\\a.b\\photo");
}

TEST_F(TreeTest, ProvisionalRecordIsRefilledWhenTheDeviceReportsTheFile) {
  ASSERT_EQ(tree_.AddFile("new", "\\DCIM\\new", "o1", "txt", -1, nullptr, "DMYID\\DCIM\\new.txt", nullptr,
                          "\\DCIM\\", 0, -1), 1);
  DirectoryItem* provisional = File(0);
  provisional->bUploadPending = 1;
  const FILETIME t = At(2021, 1, 1);
  ASSERT_EQ(tree_.AddFile("new", "o77", "o1", "txt", 5, &t, "o77", "o77", "\\DCIM\\", 0, 1), 1);
  EXPECT_EQ(tree_.m_pFiles->Count(), 1u);
  EXPECT_EQ(File(0), provisional);
  EXPECT_EQ(*provisional->sItemID, "o77");
  EXPECT_EQ(provisional->rFindData.FileSize(), 5);
  EXPECT_EQ(tree_.FindFileByItemID("DMYID\\DCIM\\new.txt", 1), nullptr);
}

TEST_F(TreeTest, FallbackTimeIsSharedByAllAddsWithoutTime) {
  ASSERT_EQ(AddListed("o0", "z", "jpg", "\\"), 1);
  ASSERT_EQ(tree_.AddFile("a", "o1", "p", "", 1, nullptr, "o1", "o1", "\\", 0, 1), 1);
  ASSERT_EQ(tree_.AddFile("b", "o2", "p", "", 1, nullptr, "o2", "o2", "\\", 0, 1), 1);
  EXPECT_EQ(File(1)->rFindData.ftCreationTime, CDirectory::ProcessFallbackTime());
  EXPECT_EQ(File(2)->rFindData.ftCreationTime, File(1)->rFindData.ftCreationTime);
  CDirectory other;
  ASSERT_EQ(other.AddFile("c", "o3", "p", "", 1, nullptr, "o3", "o3", "\\", 0, 1), 1);
  EXPECT_EQ(other.m_pFiles->Get(0)->rFindData.ftCreationTime, File(1)->rFindData.ftCreationTime);
}

TEST_F(TreeTest, TotalSizeNeverGoesBelowZero) {
  EXPECT_EQ(tree_.AddSize(40), 40);
  EXPECT_EQ(tree_.AddSize(-100), 0);
  EXPECT_EQ(tree_.AddSize(5), 5);
  tree_.Init("\\", 1);
  EXPECT_EQ(tree_.GetTotalSize(), 0);
}

TEST_F(TreeTest, FullPathFromFolderIds) {
  ASSERT_EQ(tree_.AddDirectory(1, "\\", "s1", "DEVICE", "s1", 1, 1, 1, nullptr), 1);
  ASSERT_EQ(tree_.AddDirectory(0, "\\DCIM\\", "o1", "s1", "o1", 1, 0, 1, nullptr), 1);
  ASSERT_EQ(tree_.AddDirectory(0, "\\DCIM\\100CANON\\", "o2", "o1", "o2", 1, 0, 1, nullptr), 1);
  std::string out;
  EXPECT_STREQ(tree_.GetFullPathByUniqueID(&out, 260, "O2", 0), "\\DCIM\\100CANON\\");
  EXPECT_STREQ(tree_.GetFullPathByUniqueID(&out, 260, "o1", 0), "\\DCIM\\");
  EXPECT_STREQ(tree_.GetFullPathByUniqueID(&out, 5, "o2", 0), "\\DCI") << "cut at the capacity";
  EXPECT_EQ(tree_.GetFullPathByUniqueID(&out, 260, "nope", 0), nullptr);
  EXPECT_EQ(tree_.GetFullPathByUniqueID(&out, 260, "", 0), nullptr);
  tree_.FindFileByItemID("o1", 0)->bDeleted = 1;
  EXPECT_STREQ(tree_.GetFullPathByUniqueID(&out, 260, "o2", 0), "\\100CANON\\");
  EXPECT_STREQ(tree_.GetFullPathByUniqueID(&out, 260, "o2", 1), "\\DCIM\\100CANON\\");
}

TEST_F(TreeTest, FullPathStopsOnALoopOfParentIds) {
  ASSERT_EQ(tree_.AddDirectory(0, "\\A\\", "a", "b", "a", 1, 0, 1, nullptr), 1);
  ASSERT_EQ(tree_.AddDirectory(0, "\\A\\B\\", "b", "a", "b", 1, 0, 1, nullptr), 1);
  std::string out;
  EXPECT_NE(tree_.GetFullPathByUniqueID(&out, 260, "a", 0), nullptr);
}

TEST_F(TreeTest, RenameMoveAndRemoveOfItems) {
  ASSERT_EQ(tree_.AddDirectory(0, "\\DCIM\\", "d", "s", "d", 1, 0, 1, nullptr), 1);
  ASSERT_EQ(AddListed("f1", "IMG_1", "JPG", "\\DCIM\\"), 1);
  tree_.SetRootDir("\\");
  tree_.Sort(0);
  DirectoryItem* file = File(0);
  ASSERT_EQ(file->sFullName, "\\DCIM\\IMG_1");
  file->ullAlreadyDownloaded = 99;

  tree_.ChangePathItem(file, "\\DCIM\\IMG_1.JPG", "\\DCIM\\holiday", 0, "holiday.jpeg", 1);
  EXPECT_EQ(file->rFindData.cFileName, "holiday.jpeg");
  EXPECT_EQ(file->sOriginalItemName, "holiday");
  EXPECT_EQ(file->dwOriginalItemNameHash, qb::directory::NameHash("holiday"));
  EXPECT_EQ(file->sFullName, "\\DCIM\\holiday");
  EXPECT_EQ(file->sFullPath, "\\DCIM\\");
  EXPECT_EQ(file->ullAlreadyDownloaded, 0u);
  EXPECT_EQ(tree_.FindItemByFullName(0, "\\dcim\\HOLIDAY", 0), file) << "the index follows the rename";
  EXPECT_EQ(tree_.FindItemByFullName(0, "\\DCIM\\IMG_1", 1), nullptr);

  DirectoryItem* dcim = tree_.FindFileByItemID("d", 0);
  tree_.ChangePathItem(dcim, "\\DCIM\\", "\\PHOTOS\\", 1, "PHOTOS", 1);
  EXPECT_EQ(dcim->sFullName, "\\PHOTOS\\");
  EXPECT_EQ(dcim->sOriginalDeviceName, "\\PHOTOS\\");
  EXPECT_FALSE(dcim->bPopulated);
  // The file follows its folder without a new name (case-sensitive replace).
  tree_.ChangePathItem(file, "\\dcim\\", "\\PHOTOS\\", 0, nullptr, 1);
  EXPECT_EQ(file->sFullName, "\\DCIM\\holiday");
  tree_.ChangePathItem(file, "\\DCIM\\", "\\PHOTOS\\", 0, nullptr, 1);
  EXPECT_EQ(file->sFullName, "\\PHOTOS\\holiday");
  EXPECT_EQ(file->sFullPath, "\\PHOTOS\\");

  tree_.ChangePathItem(file, "x", "y", 0, nullptr, 0);
  EXPECT_TRUE(file->bDeleted);
  EXPECT_EQ(tree_.FindFirstEmptyItem(), file);
}

TEST_F(TreeTest, ChildrenOfARenamedFolderAreMarkedGone) {
  ASSERT_EQ(tree_.AddDirectory(0, "\\A\\", "a", "s", "a", 1, 0, 1, nullptr), 1);
  ASSERT_EQ(tree_.AddDirectory(0, "\\A\\B\\", "b", "A", "b", 1, 0, 1, nullptr), 1);
  ASSERT_EQ(AddListed("f", "f", "jpg", "\\A\\"), 1);
  File(0)->sParentID = "a";
  ASSERT_EQ(AddListed("g", "g", "jpg", "\\A\\B\\"), 1);
  File(1)->sParentID = "b";
  ASSERT_EQ(AddListed("h", "h", "jpg", "\\"), 1);
  File(2)->sParentID = "s";
  tree_.ChangePathChildren("\\A\\", "\\Z\\", "a");
  EXPECT_TRUE(File(0)->bDeleted);
  EXPECT_TRUE(File(1)->bDeleted);
  EXPECT_FALSE(File(2)->bDeleted);
  DirectoryItem* b = tree_.FindFileByItemID("b", 1);
  EXPECT_TRUE(b->bDeleted);
  EXPECT_FALSE(b->bPopulated);
  EXPECT_FALSE(tree_.FindFileByItemID("a", 0)->bDeleted) << "the folder itself stays";
}

TEST_F(TreeTest, ReindexAfterADirectChange) {
  ASSERT_EQ(AddListed("o1", "a", "jpg", "\\"), 1);
  DirectoryItem* f = File(0);
  tree_.SetItemID(f, "o9");
  EXPECT_EQ(tree_.FindFileByItemID("o9", 0), f);
  EXPECT_EQ(tree_.FindFileByItemID("o1", 0), nullptr);
  f->sUniqueID = "u9";
  tree_.Reindex(f);
  EXPECT_EQ(tree_.FindFileByUniqueID("U9", 0), f);
  tree_.SetItemID(f, nullptr);
  EXPECT_EQ(tree_.FindFileByItemID("o9", 1), nullptr);
}

TEST_F(TreeTest, CleanupEmptiesAndInitStartsAgain) {
  ASSERT_EQ(AddListed("o1", "a", "jpg", "\\"), 1);
  tree_.Cleanup(0);
  EXPECT_EQ(tree_.m_pFiles, nullptr);
  EXPECT_EQ(tree_.FindFileByItemID("o1", 1), nullptr);
  EXPECT_EQ(AddListed("o2", "b", "jpg", "\\"), 0) << "no collection to add to";
  tree_.Init("\\", 0);
  EXPECT_STREQ(tree_.GetRootDir(), "\\");
  EXPECT_FALSE(tree_.m_pPersistFolders->Get(0)->bPopulated);
  EXPECT_EQ(AddListed("o1", "a", "jpg", "\\"), 1);
}

TEST(TreeLock, UsesTheGivenLockOrItsOwn) {
  CMutexRW lock;
  CDirectory shared(&lock);
  EXPECT_EQ(shared.GetLock(), &lock);
  CDirectory own;
  EXPECT_NE(own.GetLock(), nullptr);
  EXPECT_NE(own.GetLock(), &lock);
}

}  // namespace
