#pragma once
// CCache: the index of the local copies of one mapped drive's files, and the
// whole-cache operations that keep all drives' copies under "CacheSize".
//
// Layout on disk: <cache folder>/<letter in lower case>/<drive path>, the
// drive path mirrored below the letter folder with "/" for "\". The index
// lives in memory only and is rebuilt from the disk (Rebuild).
//
// The size book-keeping shared by all instances (the cache-folder table of
// the shared section) is reached through CCacheSharedTable, which the app
// implements over its shared state; the cache room never includes src/app.
//
// Locking: the index of one drive is used under the drive's exclusive-access
// mutex or drive lock (see drive/drive.h); it has no lock of its own. The
// adjustment (Global_AdjustCacheContentToFit) runs at most once at a time per
// process (an atomic counter; a second caller returns at once).
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

#include "common/ptr_list.h"
#include "directory/find_data.h"
#include "platform/system/wintypes.h"

// At most this many cache folders are tracked.
constexpr int kCacheFolderCount = 50;

// One entry of the shared cache-folder table, as the cache sees it.
struct CacheFolderEntry {
  int32_t nDriveIndex = -1;     // 0 "a" .. 25 "z", -1 not mapped
  uint64_t ullBytesCached = 0;  // size of the folder's copies
  std::string sName;            // the folder's name (one letter); empty: free
};

// The shared cache-folder table (the cache-folder part of the shared
// instance state). The app implements it over CSuperGlobals; tests and
// tools without shared state use CLocalCacheTable.
class CCacheSharedTable {
 public:
  virtual ~CCacheSharedTable() = default;
  // The size counter of the mapped drive's folder, or null.
  virtual uint64_t* GetCacheSizePtr(char letter) = 0;
  // Adds delta to the counter of the folder named by the first path
  // component of the relative name ("f/DCIM/a.jpg" -> folder "f").
  virtual void UpdateCacheSizeByFileName(const std::string& relativeName, int64_t delta) = 0;
  // Whether the folder name belongs to a mapped drive.
  virtual bool IsFolderActive(const std::string& name) = 0;
  // Copies of the 50 entries (false when the table is not available).
  virtual bool ReadEntries(CacheFolderEntry (&out)[kCacheFolderCount]) = 0;
  virtual void WriteEntry(int index, const CacheFolderEntry& entry) = 0;
};

// A table in this process's memory: a letter folder is active when it was
// registered with SetMapped.
class CLocalCacheTable : public CCacheSharedTable {
 public:
  uint64_t* GetCacheSizePtr(char letter) override;
  void UpdateCacheSizeByFileName(const std::string& relativeName, int64_t delta) override;
  bool IsFolderActive(const std::string& name) override;
  bool ReadEntries(CacheFolderEntry (&out)[kCacheFolderCount]) override;
  void WriteEntry(int index, const CacheFolderEntry& entry) override;
  // Marks the letter's folder as the mapped drive's (makes an entry if none).
  void SetMapped(char letter);

 private:
  CacheFolderEntry m_entries[kCacheFolderCount];
};

// One local copy.
struct CCacheItem {
  // For an added copy: the tree item's rFindData when it was added (device
  // times, size, name); for a copy found on disk: the local file's data.
  WIN32_FIND_DATAW rFindData;
  std::string sName;       // drive path without the leading "\" and the extension
  std::string sLocalPath;  // full path of the local copy
  FILETIME ftLocalWrite;   // the local file's last write as found on disk; 0 for an added copy

  // Whether the local copy still matches the device file described by
  // `deviceData` (same creation time, size and name; the local file opens and
  // carries the same creation time and size). A file locked by another
  // program counts as valid.
  static int Validate(const CCacheItem* item, const WIN32_FIND_DATAW& deviceData);
};

class CCache : public PtrList<CCacheItem> {
 public:
  // An index without a drive (whole-cache operations).
  CCache(const std::string& cacheFolder, CCacheSharedTable* table);
  // The index of one mapped drive.
  CCache(const std::string& cacheFolder, char driveLetter, const std::string& deviceId,
         CCacheSharedTable* table);
  ~CCache();  // frees the items; local files stay
  CCache(const CCache&) = delete;
  CCache& operator=(const CCache&) = delete;

  void SetCacheParams(const std::string& cacheFolder, char driveLetter);
  // Resets the drive's counter and rebuilds the index from the drive folder.
  void Rebuild(const std::string& cacheFolder, char driveLetter);

  CCacheItem* Find(const std::string& name, const std::string& fileName) const;
  // The existing item of the copy, or a new one (room made under the limit
  // first, its size counted). The local file is not created here. Null when
  // findData is null.
  CCacheItem* Add(const std::string& name, const WIN32_FIND_DATAW* findData);
  // Removes the item (and with deleteFile its local file and its size from
  // the counter); nulls the reference.
  void Delete(CCacheItem** item, int deleteFile);
  // Gives the copy a new name (a renamed file keeps its copy): the local
  // file moves along, a copy that the new name had is thrown away. False
  // when the local file cannot move; the item is then removed with its file.
  bool Rename(CCacheItem* item, const std::string& name, const std::string& fileName);
  uint64_t GetCacheSize() const;

  // Creates the parent folders of an item's local copy; false on failure.
  static bool CreateParentFolders(const CCacheItem* item);

  // --- whole cache ---
  void Global_GetCacheSize(uint64_t* total, uint64_t* activeTotal) const;
  // Flag 0x2: delete letter folders of drives that are not mapped.
  static constexpr uint32_t kBuildDeleteInactive = 0x2;
  int Global_BuildCache(CacheFolderEntry (&table)[kCacheFolderCount], uint32_t flags);
  int Global_Purge(uint32_t flags);
  int Global_PurgeActive(uint64_t bytesToFree);
  void Global_AdjustCacheContentToFit(uint64_t bytesNeeded);
  // The limit in bytes ("CacheSize" MiB << 20); tests may override it.
  uint64_t CacheLimitBytes() const;
  void SetCacheLimitBytesForTest(uint64_t bytes) { m_ullLimitOverride = bytes; }

  const std::string& CacheFolder() const { return m_sCacheFolder; }
  const std::string& DriveFolder() const { return m_sDriveFolder; }
  char DriveLetter() const { return m_cDriveLetter; }
  CCacheSharedTable* Table() const { return m_pTable; }

 private:
  void _Rebuild(const std::string& folder, const std::string& baseFolder, uint64_t* counter,
                int createItems, PtrList<CCacheItem>* target);

  std::string LocalPathOf(const std::string& name, const std::string& fileName) const;
  void IndexAdd(CCacheItem* item);
  void IndexRemove(const CCacheItem* item);

  // Find by key (name and file name, A-Z folded) without a walk; kept in
  // step with the list by Add, Delete and Rebuild.
  std::unordered_multimap<std::string, CCacheItem*> m_index;
  std::string m_sCacheFolder;
  std::string m_sDriveFolder;
  char m_cDriveLetter = 0;
  std::string m_sDeviceId;
  CCacheSharedTable* m_pTable = nullptr;  // not owned
  uint64_t m_ullLimitOverride = 0;
};

// The creation time of a local copy. Linux files have no settable creation
// time, so the copy carries it in the extended attribute
// "user.quillbox.created" (on file systems without user attributes: its
// last-write time).
bool SetCopyCreationTime(const std::string& path, const FILETIME& created);
bool GetCopyCreationTime(const std::string& path, FILETIME* created);

// The program's file-removal helpers: a file, and a folder with its content.
bool DeleteFileEx(const std::string& path);
bool DeleteDirectoryRecursive(const std::string& path);
