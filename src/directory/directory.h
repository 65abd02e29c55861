#pragma once
// CDirectory: the in-memory picture of the mapped storage. Three flat
// collections of item records (files, persistent folders, storage roots) that
// refer to each other by device object ids and carry their own full paths.
// Records are never moved or freed while the tree lives (the drive keeps
// pointers to them across calls); a deleted record is refilled by the next
// add of its kind. Only Cleanup frees records.
//
// Text is UTF-8. Where the record has a fixed capacity in characters
// (UTF-16 units) the stored text is cut there, as the checked string helpers do.
//
// Locking: the tree's own CMutexRW (m_pLock) covers only the duplicate checks
// of an add (read), the insertion of a new record (write) and Cleanup (write).
// Lookups, renames, Sort, Dump and AddSize take no lock: callers serialise
// them with the drive lock, which must be taken before the tree's own lock.
// Never call an add while holding the tree's own write lock.
//
// Lookups answer the first match in list order. Indexes by item id, unique id
// and full name keep them constant-time; a caller that changes sItemID,
// sUniqueID or sFullName of a record directly must call Reindex(item)
// afterwards (or use SetItemID / ChangePathItem, which do it).
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "common/ptr_list.h"
#include "directory/download_region.h"
#include "directory/find_data.h"
#include "directory/mutex_rw.h"
#include "platform/system/wintypes.h"

class CDirectory;
struct DirectoryItem;

namespace qb::directory {
class CollectionIndex;
class NamingTables;
}  // namespace qb::directory

// Capacities of the record's texts, in UTF-16 units (including the terminator,
// as the design's buffers count them).
namespace qb::directory {
constexpr size_t kNameCapacity = 260;        // cFileName, names, sFullPath, root dir
constexpr size_t kFullNameCapacity = 520;    // sFullName, sUniqueName
constexpr size_t kIdCapacity = 100;          // sUniqueID, sParentID
constexpr size_t kPatternCapacity = 1000;    // naming pattern
constexpr size_t kAltNameCapacity = 14;      // cAlternateFileName (always empty)
}  // namespace qb::directory

// bDeleted: reads and assigns like a 32-bit flag. Setting it tells the tree
// that the record may be reused, so finding a free record costs no walk.
class DeletedFlag {
 public:
  DeletedFlag() = default;
  DeletedFlag(const DeletedFlag&) = delete;
  DeletedFlag& operator=(const DeletedFlag&) = delete;

  DeletedFlag& operator=(uint32_t value);
  operator uint32_t() const { return m_value; }

 private:
  friend class qb::directory::CollectionIndex;
  qb::directory::CollectionIndex* m_owner = nullptr;  // set while the record is listed
  DirectoryItem* m_item = nullptr;
  uint32_t m_value = 0;  // last, so that the record's next field may fill the rest
};

// Book-keeping of the tree for one record: its place in list order and the
// keys it is indexed under. Not part of the record's meaning.
struct DirectoryItemLinks {
  int64_t order = 0;          // list order; smaller comes first
  uint32_t hItemID = 0;       // index keys the record was filed under
  uint32_t hUniqueID = 0;
  uint32_t hFullName = 0;
  uint8_t inItemID = 0;
  uint8_t inUniqueID = 0;
  uint8_t inFullName = 0;
  int8_t collection = -1;     // 0 files, 1 persistent folders, 2 storage roots
};

// One file, folder or storage of the mapped device.
struct DirectoryItem {
  DirectoryItem();
  ~DirectoryItem();
  DirectoryItem(const DirectoryItem&) = delete;
  DirectoryItem& operator=(const DirectoryItem&) = delete;

  // One record per object of the device: the fields are ordered so that
  // little room goes to padding.
  [[no_unique_address]] DeletedFlag bDeleted;  // gone; the record is free for reuse
  uint32_t bPendingDelete = 0;  // a delete is under way; invisible to lookups
  WIN32_FIND_DATAW rFindData;
  std::string sFullName;            // path on the drive ("\" first; folders end in "\"; files without extension)
  std::string sOriginalDeviceName;  // full name as added, ":" kept
  std::string sOriginalItemName;    // the object's name on the device, a file's without its last extension
  uint32_t dwOriginalItemNameHash = 0;
  uint32_t bDownloading = 0;
  uint64_t ullAlreadyDownloaded = 0;
  uint64_t ullAlreadyUploaded = 0;
  // Created and closed by the read path; guards pRegionsToDownload during a
  // download (a timed mutex, so that every wait on it can have a limit).
  std::unique_ptr<std::timed_mutex> hRegionsToDownloadMutex;
  // Made by the first reader that waits for a download (most files are
  // never read), under hRegionsToDownloadMutex; null means no regions.
  std::unique_ptr<DownloadRegionList> pRegionsToDownload;
  std::optional<std::string> sItemID;  // device object id, or a provisional "DMYID..." id; may be absent
  std::string sUniqueName;             // key of the file for virtual naming
  uint32_t dwUniqueNameHash = 0;
  uint32_t dwError = 0;
  std::string sFullPath;  // containing folder, "\" first and last; empty for the root
  uint32_t bFileFlagDeleteOnClose = 0;
  int32_t nStorageIdx = 0;
  uint32_t bPersistent = 0;  // folders and storage roots
  uint32_t bPopulated = 0;
  uint64_t ullPopulatedTimestamp = 0;  // tick count of the listing that populated the folder
  std::string sUniqueID;
  std::string sParentID;
  std::unique_ptr<CDirectory> pSubDir;  // the folder's own listing tree, made on demand
  // The lock handed to pSubDir's constructor, made with the first pSubDir
  // (only folders listed asynchronously have one) and kept until the record
  // is freed.
  std::unique_ptr<CMutexRW> subDirLock;
  uint32_t bSubDirDone = 0;
  // Write path (not printed by the dump).
  uint32_t bUploadPending = 0;
  FILETIME ftDelayedCreationTime;
  FILETIME ftDelayedLastWriteTime;
  // Opens of the drive that hold the record as their object (changed under
  // the drive lock held for reading, hence atomic). A held record keeps its
  // identity: it is not refilled for another object while any open holds
  // it, even when it is flagged deleted. Kept by a refill in place.
  std::atomic<uint32_t> nOpenHolds{0};
  uint32_t bSystem = 0;

  DirectoryItemLinks links;  // the tree's book-keeping

  // True when neither bDeleted nor bPendingDelete is set.
  bool IsLive() const { return !bDeleted && !bPendingDelete; }
  // The id as text ("" when absent), for logging and comparisons.
  const char* ItemIDText() const { return sItemID ? sItemID->c_str() : ""; }
};

// One object of a device listing, as the content walk hands it to the tree.
struct DeviceListingRecord {
  enum class Kind { File, Folder, Storage, Device };

  std::string sObjectID;    // at most 259 characters
  std::string sParentID;    // empty for the device object
  std::string sUniqueID;    // the object id again, cut to 99 characters
  std::string sName;        // a file's name before its last "."
  std::string sExtension;   // after the last "."; empty for folders
  uint64_t ullSize = 0;     // 0 when not reported
  std::optional<FILETIME> ftTime;  // the chosen device date, already through FixDstFiletime
  bool bReadOnly = false;   // WPD_OBJECT_CAN_DELETE reported and false
  Kind kind = Kind::File;
  int32_t nStorage = 0;     // storages numbered from 1
  std::string sFolderPath;  // drive path of the containing folder, "\" first and last
  bool bChildrenListed = false;  // folders and storages: the walk descends into them
};

class CDirectory {
 public:
  using ItemList = PtrList<DirectoryItem>;
  using StringList = PtrList<std::string>;

  // Selection bits of Dump.
  static constexpr uint32_t kDumpFiles = 0x1;
  static constexpr uint32_t kDumpPersistFolders = 0x4;
  static constexpr uint32_t kDumpStorageRoots = 0x8;
  static constexpr uint32_t kDumpDetailed = 0x10000;

  // Flags word.
  static constexpr uint32_t kFlagUseCreateTime = 0x1;
  static constexpr uint32_t kFlagDstFiletimeFix = 0x2;

  // With a null lock the tree makes and owns its own.
  explicit CDirectory(CMutexRW* lock = nullptr);
  virtual ~CDirectory();
  CDirectory(const CDirectory&) = delete;
  CDirectory& operator=(const CDirectory&) = delete;

  // --- set-up and teardown ---
  void Init(const char* rootDir, int rootPopulated);
  void Cleanup(int full);
  void SetRootDir(const char* path);
  const char* GetRootDir() const { return m_sRootDir.c_str(); }
  // Splits a profile string at space, ";", tab and newline into the list.
  void AddExcludePatterns(const char* profileText);
  void AddIgnoredStorages(const char* profileText);
  static void FreeItem(std::unique_ptr<DirectoryItem>* item);

  // --- adding (1 added / 0 refused) ---
  int AddFile(const char* name, const char* fullName, const char* parentID, const char* extension,
              int64_t size, const FILETIME* time, const char* itemID, const char* uniqueID,
              const char* folderPath, uint32_t attributes, int32_t storageIdx);
  int AddPersistentDirectory(int storageRoot, int insertFirst, const char* path,
                             uint32_t extraAttributes, DirectoryItem** itemOut, const char* itemID,
                             const char* parentID, const char* uniqueID, int populated, int system,
                             int32_t storageIdx, const FILETIME* time);
  int AddPersistentDirectoryRecursive(int storageRoot, int insertFirst, const char* path,
                                      uint32_t extraAttributes, DirectoryItem** itemOut,
                                      const char* itemID, const char* parentID,
                                      const char* uniqueID, int populated, int system,
                                      int32_t storageIdx, const FILETIME* time);
  int AddDirectoryIfMissing(int storageRoot, const char* path, const char* itemID,
                            const char* parentID, const char* uniqueID, int populated, int system,
                            int32_t storageIdx, const FILETIME* time);
  int AddDirectory(int storageRoot, const char* path, const char* itemID, const char* parentID,
                   const char* uniqueID, int populated, int system, int32_t storageIdx,
                   const FILETIME* time);
  // One object of a content listing: a folder or storage through AddDirectory
  // (path: folder path, then a folder's name and "\"), a file through AddFile
  // and AddSize. The device object itself adds nothing (answer 0).
  int AddListingRecord(const DeviceListingRecord& record);
  int64_t AddSize(int64_t delta);
  int64_t GetTotalSize() const { return m_llTotalSize; }
  int KeepsOriginalPath() const;
  static int KeepsOriginalPath(const CDirectory* tree) { return tree ? tree->KeepsOriginalPath() : 0; }
  static std::string& StripColons(std::string& text);

  // --- finding (item or null; deleted items only with includeDeleted) ---
  DirectoryItem* FindFileByItemID(const char* itemID, int includeDeleted) const;
  DirectoryItem* FindFileByUniqueID(const char* uniqueID, int includeDeleted) const;
  DirectoryItem* FindFirstEmptyItem() const;
  DirectoryItem* FindFirstEmptyDirItem() const;
  // First item of m_pFiles (collection 0), m_pPersistFolders (1) or
  // m_pStorageRoots (2) whose sFullName equals the name, ignoring case in A-Z.
  // Skips items with bDeleted or bPendingDelete unless includeDeleted.
  DirectoryItem* FindItemByFullName(int collection, const char* fullName, int includeDeleted) const;
  const char* GetFullPathByUniqueID(std::string* out, size_t capacity, const char* itemID,
                                    int includeDeleted) const;

  // --- changing ---
  void ChangePathItem(DirectoryItem* item, const char* oldPath, const char* newPath, int folder,
                      const char* newName, int rename);
  void ChangePathChildren(const char* oldPath, const char* newPath, const char* parentItemID);
  // Sets (or with null removes) the item's sItemID and files it again.
  void SetItemID(DirectoryItem* item, const char* itemID);
  // Files the item again after sItemID, sUniqueID or sFullName was changed
  // directly. Like the lookups, it takes no lock: call it under the drive lock.
  void Reindex(DirectoryItem* item);

  // --- diagnostics ---
  void Dump(uint32_t selection, const char* prefix, const DirectoryItem* item,
            const int32_t* staleAgeMs) const;
  void DumpItem(const DirectoryItem* item, int index, const char* prefix,
                const char* listName) const;

  // --- virtual naming ---
  void SetNamingPattern(const char* pattern);
  const char* GetNamingPattern() const { return m_sNamingPattern.c_str(); }
  void Sort(int32_t storageIdx);
  int _MapFileName(std::string* out, size_t capacity, const char* uniqueName,
                   const FILETIME* creationTime, int keepFolder, const char* pattern,
                   const char* patternNoCounters, DirectoryItem* item, int quiet);
  const char* ReverseMapFileName(const char* path, std::string* out, size_t capacity) const;

  // --- file times ---
  void SetFlagUseCreateTime(int on);
  int GetFlagUseCreateTime() const { return (m_dwFlags & kFlagUseCreateTime) ? 1 : 0; }
  void SetFlagDstFiletimeFix(int on, int32_t offsetMinutes);
  uint32_t GetFlagDstFiletimeFix() const { return m_dwFlags & kFlagDstFiletimeFix; }
  int FixDstFiletime(FILETIME* time, const char* name) const;
  int32_t GetTimeZoneBias() const { return m_lTimeZoneBias; }
  int32_t GetDstOffset() const { return m_lDstOffset; }

  CMutexRW* GetLock() const { return m_pLock; }

  // The time given to adds without a time: taken from the clock by the first
  // such add of the process and shared by all later ones.
  static FILETIME ProcessFallbackTime();

  // The collections (null after Cleanup until Init). Read them freely under
  // the drive lock; add and free records only through the tree.
  std::unique_ptr<ItemList> m_pFiles;
  std::unique_ptr<ItemList> m_pPersistFolders;
  std::unique_ptr<ItemList> m_pStorageRoots;
  std::unique_ptr<StringList> m_pExcludeList;
  std::unique_ptr<StringList> m_pIgnoredStoragesList;

 private:
  int _AddItem(int insertFirst, const char* name, const char* fullName, const char* extension,
               uint32_t attributes, int64_t size, const FILETIME* time, int collection,
               const char* itemID, const char* parentID, const char* uniqueID,
               const char* folderPath, DirectoryItem** itemOut, int32_t storageIdx,
               int persistent, int populated, int system);
  void FillItem(DirectoryItem* item, const char* name, const char* fullName,
                const char* extension, uint32_t attributes, int64_t size, const FILETIME& time,
                const char* itemID, const char* parentID, const char* uniqueID,
                const char* folderPath, int32_t storageIdx, int persistent, int populated,
                int system);
  bool IsExcluded(const char* extension) const;
  ItemList* List(int collection) const;
  qb::directory::CollectionIndex* Index(int collection) const;
  void SetFullName(DirectoryItem* item, const std::string& fullName);
  void SortOriginal();
  void SortVirtual(int32_t storageIdx);
  void GiveEveryFileItsOwnName(const std::vector<DirectoryItem*>& inOrder);
  std::string FallbackName(const DirectoryItem* item, const char* tag) const;
  std::string TargetOfKey(const std::string& key, const char* pattern, const char* patternNoCounters,
                          DirectoryItem* item, const FILETIME& local);
  void ClearNamingTables();

  int64_t m_llTotalSize = 0;
  std::string m_sRootDir;
  int32_t m_lTimeZoneBias = 0;  // minutes; UTC = local + bias
  int32_t m_lDstOffset = 0;     // minutes
  uint32_t m_dwFlags = 0;
  CMutexRW* m_pLock = nullptr;
  uint32_t m_bOwnLock = 0;
  std::unique_ptr<qb::directory::CollectionIndex> m_pIndexes[3];
  std::unique_ptr<qb::directory::NamingTables> m_pNaming;
  std::string m_sNamingPattern;
};
