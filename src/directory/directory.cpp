// Construction, set-up, teardown and the adds of the tree.
#include "directory/directory.h"

#include <atomic>

#include "common/strings.h"
#include "diag/trace.h"
#include "directory/collection_index.h"
#include "directory/name_hash.h"
#include "directory/naming_tables.h"
#include "directory/trace_steps.h"
#include "directory/wildcard.h"
#include "platform/system/clock.h"
#include "platform/system/timezone.h"

using qb::directory::CollectionIndex;
using qb::directory::kFullNameCapacity;
using qb::directory::kIdCapacity;
using qb::directory::kNameCapacity;
using qb::directory::TraceEnter;
using qb::directory::TraceLeave;
using qb::directory::TraceReturn;

namespace {

constexpr uint64_t kTicksPerMinute = 600'000'000ull;

std::atomic<uint64_t> g_fallbackTime{0};

const char* OrEmpty(const char* s) { return s ? s : ""; }

// Copies text into a field of the given capacity (UTF-16 units with the
// terminator), cut there as the checked helpers do.
void CopyField(std::string* field, size_t capacity, std::string_view text) {
  if (qb::Utf16Length(text) < capacity) {
    field->assign(text);
    return;
  }
  _TcsCpy(field, capacity, std::string(text).c_str());
}

std::string WithoutColons(const char* text) {
  std::string s = OrEmpty(text);
  return CDirectory::StripColons(s);
}

// "-YYYYMMDDhhmm" (minute raised by one from second 56 on), or the raw value
// when the time has no date.
std::string UniqueNameStamp(const FILETIME& t) {
  SYSTEMTIME st;
  if (qb::sys::FileTimeToSystemTime(t, &st)) {
    const int minute = st.wMinute + (st.wSecond >= 56 ? 1 : 0);
    return qb::Format("-%04d%02d%02d%02d%02d", st.wYear, st.wMonth, st.wDay, st.wHour, minute);
  }
  return qb::Format("-%08X%08X", t.dwHighDateTime, t.dwLowDateTime).substr(0, 13);
}

FILETIME AddMinutes(const FILETIME& t, int64_t minutes) {
  const int64_t v = static_cast<int64_t>(t.Value()) + minutes * static_cast<int64_t>(kTicksPerMinute);
  return FILETIME::From(v < 0 ? 0 : static_cast<uint64_t>(v));
}

void TraceTime(const char* tag, const char* label, const FILETIME& t) {
  SYSTEMTIME st;
  if (qb::sys::FileTimeToSystemTime(t, &st))
    Trace(tag, "%s = %04d-%02d-%02d %02d:%02d:%02d", label, st.wYear, st.wMonth, st.wDay,
          st.wHour, st.wMinute, st.wSecond);
  else
    Trace(tag, "%s = 0x%08X:0x%08X", label, t.dwHighDateTime, t.dwLowDateTime);
}

// Splits at space, ";", tab and newline; every non-empty piece is appended.
void SplitInto(const char* text, CDirectory::StringList* list) {
  if (!text || !list) return;
  std::string piece;
  for (const char* p = text;; ++p) {
    const char c = *p;
    if (c == ' ' || c == ';' || c == '\t' || c == '\n' || c == '\r' || c == '\0') {
      if (!piece.empty()) list->Emplace(std::move(piece));
      piece.clear();
      if (c == '\0') break;
    } else {
      piece.push_back(c);
    }
  }
}

}  // namespace

// ---------------------------------------------------------------------------
// Item record

DirectoryItem::DirectoryItem() = default;
// The sub-tree uses subDirLock, which is destroyed before it: free the
// sub-tree first.
DirectoryItem::~DirectoryItem() { pSubDir.reset(); }

// ---------------------------------------------------------------------------
// Construction and teardown

CDirectory::CDirectory(CMutexRW* lock) {
  static const char* kTag = "D1@CDirectory::CDirectory: ";
  TraceEnter(kTag);
  if (lock) {
    m_pLock = lock;
  } else {
    m_pLock = new CMutexRW;  // balanced by the delete in the destructor
    m_bOwnLock = 1;
  }
  m_sNamingPattern = "<P><O><Fo>";
  m_pNaming = std::make_unique<qb::directory::NamingTables>();
  qb::sys::TIME_ZONE_INFORMATION tzi;
  const uint32_t id = qb::sys::GetTimeZoneInformation(&tzi);
  if (id == qb::sys::TIME_ZONE_ID_STANDARD)
    Trace(kTag, "dwTimezone=TIME_ZONE_ID_STANDARD, %ld (%ld, %ld)", static_cast<long>(tzi.Bias),
          static_cast<long>(tzi.Bias), static_cast<long>(tzi.StandardBias));
  else if (id == qb::sys::TIME_ZONE_ID_DAYLIGHT)
    Trace(kTag, "dwTimezone=TIME_ZONE_ID_DAYLIGHT, %ld (%ld, %ld)", static_cast<long>(tzi.Bias),
          static_cast<long>(tzi.Bias), static_cast<long>(tzi.DaylightBias));
  else
    Trace(kTag, "dwTimezone=TIME_ZONE_ID_UNKNOWN, %ld", static_cast<long>(tzi.Bias));
  m_lTimeZoneBias = id == qb::sys::TIME_ZONE_ID_INVALID ? 0 : tzi.Bias;
  Init(nullptr, 1);
  TraceLeave(kTag);
}

CDirectory::~CDirectory() {
  static const char* kTag = "D2@CDirectory::~CDirectory: ";
  TraceEnter(kTag);
  Cleanup(1);
  if (m_bOwnLock) delete m_pLock;
  m_pLock = nullptr;
  m_pNaming.reset();
  TraceLeave(kTag);
}

void CDirectory::Init(const char* rootDir, int rootPopulated) {
  static const char* kTag = "D3@CDirectory::Init: ";
  TraceEnter(kTag);
  Cleanup(0);
  if (rootDir) SetRootDir(rootDir);
  {
    CWriteLock lock(m_pLock);
    m_pFiles = std::make_unique<ItemList>();
    m_pPersistFolders = std::make_unique<ItemList>();
    m_pStorageRoots = std::make_unique<ItemList>();
    for (auto& index : m_pIndexes) index = std::make_unique<CollectionIndex>();
  }
  if (!m_pExcludeList) m_pExcludeList = std::make_unique<StringList>();
  if (!m_pIgnoredStoragesList) m_pIgnoredStoragesList = std::make_unique<StringList>();
  AddPersistentDirectory(0, 1, "\\", 0, nullptr, nullptr, nullptr, "", rootPopulated, 1, 0,
                         nullptr);
  TraceLeave(kTag);
}

void CDirectory::Cleanup(int full) {
  static const char* kTag = "D4@CDirectory::Cleanup: ";
  TraceEnter(kTag);
  {
    CWriteLock lock(m_pLock);
    m_pFiles.reset();
    m_pPersistFolders.reset();
    m_pStorageRoots.reset();
    for (auto& index : m_pIndexes) index.reset();
  }
  if (full) {
    m_pExcludeList.reset();
    m_pIgnoredStoragesList.reset();
  }
  ClearNamingTables();
  m_llTotalSize = 0;
  TraceLeave(kTag);
}

void CDirectory::SetRootDir(const char* path) {
  if (!path) return;
  CopyField(&m_sRootDir, kNameCapacity, path);
}

void CDirectory::AddExcludePatterns(const char* profileText) {
  if (!m_pExcludeList) m_pExcludeList = std::make_unique<StringList>();
  SplitInto(profileText, m_pExcludeList.get());
}

void CDirectory::AddIgnoredStorages(const char* profileText) {
  if (!m_pIgnoredStoragesList) m_pIgnoredStoragesList = std::make_unique<StringList>();
  SplitInto(profileText, m_pIgnoredStoragesList.get());
}

void CDirectory::FreeItem(std::unique_ptr<DirectoryItem>* item) {
  if (item) item->reset();
}

FILETIME CDirectory::ProcessFallbackTime() {
  uint64_t value = g_fallbackTime.load();
  if (value == 0) {
    const uint64_t now = qb::sys::GetSystemTimeAsFileTime().Value();
    g_fallbackTime.compare_exchange_strong(value, now);  // the first caller wins
    value = g_fallbackTime.load();
  }
  return FILETIME::From(value);
}

std::string& CDirectory::StripColons(std::string& text) {
  std::erase(text, ':');
  return text;
}

int CDirectory::KeepsOriginalPath() const {
  return m_sNamingPattern.find("<P>") != std::string::npos ? 1 : 0;
}

CDirectory::ItemList* CDirectory::List(int collection) const {
  switch (collection) {
    case 0: return m_pFiles.get();
    case 1: return m_pPersistFolders.get();
    case 2: return m_pStorageRoots.get();
    default: return nullptr;
  }
}

CollectionIndex* CDirectory::Index(int collection) const {
  return collection >= 0 && collection < 3 ? m_pIndexes[collection].get() : nullptr;
}

bool CDirectory::IsExcluded(const char* extension) const {
  if (!m_pExcludeList) return false;
  for (const auto& pattern : *m_pExcludeList)
    if (qb::directory::WildcardMatch(OrEmpty(extension), pattern->c_str())) return true;
  return false;
}

// ---------------------------------------------------------------------------
// Adding

int CDirectory::AddFile(const char* name, const char* fullName, const char* parentID,
                        const char* extension, int64_t size, const FILETIME* time,
                        const char* itemID, const char* uniqueID, const char* folderPath,
                        uint32_t attributes, int32_t storageIdx) {
  static const char* kTag = "D7@CDirectory::AddFile: ";
  TraceEnter(kTag);
  const int rc = _AddItem(0, name, fullName, extension, attributes, size, time, 0, itemID,
                          parentID, uniqueID, folderPath, nullptr, storageIdx, 0, 1, 0);
  return TraceReturn(kTag, rc);
}

int CDirectory::_AddItem(int insertFirst, const char* name, const char* fullName,
                         const char* extension, uint32_t attributes, int64_t size,
                         const FILETIME* time, int collection, const char* itemID,
                         const char* parentID, const char* uniqueID, const char* folderPath,
                         DirectoryItem** itemOut, int32_t storageIdx, int persistent,
                         int populated, int system) {
  static const char* kTag = "D11@CDirectory::_AddItem: ";
  TraceEnter(kTag);
  Trace(kTag, "0x%08X", static_cast<uint32_t>(reinterpret_cast<uintptr_t>(this)));
  if (IsExcluded(extension)) return TraceReturn(kTag, 0, 1);
  if (uniqueID) {
    CReadLock lock(m_pLock);
    if (FindFileByUniqueID(uniqueID, 0)) return TraceReturn(kTag, 0, 2);
  }

  DirectoryItem* item = nullptr;
  if (KeepsOriginalPath() && !persistent) {
    // A file that the drive created itself is now reported by the device:
    // its provisional record is refilled in place.
    std::string provisional = std::string("DMYID") + OrEmpty(folderPath) + OrEmpty(name);
    if (extension && *extension) provisional += std::string(".") + extension;
    StripColons(provisional);
    CReadLock lock(m_pLock);
    item = FindFileByItemID(provisional.c_str(), 0);
    lock.Unlock();
    if (item) DumpItem(item, -1, "DI", "");
  }
  if (!item) item = persistent ? FindFirstEmptyDirItem() : FindFirstEmptyItem();

  const FILETIME t = time ? *time : ProcessFallbackTime();
  if (item) {
    // Refilled in place, in its own collection; its keys change under the
    // write lock so that concurrent duplicate checks see a consistent index.
    CWriteLock lock(m_pLock);
    CollectionIndex* index = Index(item->links.collection);
    if (index) index->Unfile(item);
    FillItem(item, name, fullName, extension, attributes, size, t, itemID, parentID, uniqueID,
             folderPath, storageIdx, persistent, populated, system);
    if (index) index->File(item);
  } else {
    auto fresh = std::make_unique<DirectoryItem>();
    FillItem(fresh.get(), name, fullName, extension, attributes, size, t, itemID, parentID,
             uniqueID, folderPath, storageIdx, persistent, populated, system);
    CWriteLock lock(m_pLock);
    ItemList* list = List(collection);
    CollectionIndex* index = Index(collection);
    if (!list || !index) return TraceReturn(kTag, 0, 3);
    fresh->links.collection = static_cast<int8_t>(collection);
    fresh->links.order = insertFirst ? index->NextFrontOrder() : index->NextBackOrder();
    item = insertFirst ? list->Insert(0, std::move(fresh)) : list->Add(std::move(fresh));
    index->Attach(item);
  }
  if (itemOut) *itemOut = item;
  return TraceReturn(kTag, 1);
}

void CDirectory::FillItem(DirectoryItem* item, const char* name, const char* fullName,
                          const char* extension, uint32_t attributes, int64_t size,
                          const FILETIME& t, const char* itemID, const char* parentID,
                          const char* uniqueID, const char* folderPath, int32_t storageIdx,
                          int persistent, int populated, int system) {
  static const char* kTag = "D11@CDirectory::_AddItem: ";
  // Zero the record; its place in the list and its lock stay.
  item->bPendingDelete = 0;
  item->bDeleted = 0;
  item->rFindData = WIN32_FIND_DATAW{};
  item->sFullName.clear();
  item->sOriginalDeviceName.clear();
  item->sOriginalItemName.clear();
  item->dwOriginalItemNameHash = 0;
  item->bDownloading = 0;
  item->ullAlreadyDownloaded = 0;
  item->ullAlreadyUploaded = 0;
  item->hRegionsToDownloadMutex.reset();
  item->sItemID.reset();
  item->sUniqueName.clear();
  item->dwUniqueNameHash = 0;
  item->dwError = 0;
  item->sFullPath.clear();
  item->bFileFlagDeleteOnClose = 0;
  item->pSubDir.reset();
  item->bSubDirDone = 0;
  item->bUploadPending = 0;
  item->ftDelayedCreationTime = FILETIME{};
  item->ftDelayedLastWriteTime = FILETIME{};

  if (folderPath) CopyField(&item->sFullPath, kNameCapacity, WithoutColons(folderPath));
  item->pRegionsToDownload.reset();  // made by the first reader that waits
  if (fullName) {
    CopyField(&item->sFullName, kFullNameCapacity, WithoutColons(fullName));
    CopyField(&item->sOriginalDeviceName, kNameCapacity, fullName);
  }
  CopyField(&item->sOriginalItemName, kNameCapacity, OrEmpty(name));
  item->dwOriginalItemNameHash = qb::directory::NameHash(item->sOriginalItemName);
  std::string unique = OrEmpty(name) + UniqueNameStamp(t) + OrEmpty(folderPath);
  CopyField(&item->sUniqueName, kFullNameCapacity, unique);
  item->dwUniqueNameHash = qb::directory::NameHash(item->sUniqueName);
  item->sUniqueID.clear();
  item->sParentID.clear();
  if (uniqueID) CopyField(&item->sUniqueID, kIdCapacity, uniqueID);
  if (parentID) CopyField(&item->sParentID, kIdCapacity, parentID);
  std::string fileName = WithoutColons(name);
  if (extension && *extension) fileName += std::string(".") + extension;
  CopyField(&item->rFindData.cFileName, kNameCapacity, fileName);
  item->rFindData.dwFileAttributes = attributes;
  item->rFindData.ftCreationTime = AddMinutes(t, m_lTimeZoneBias);
  item->rFindData.ftLastWriteTime = item->rFindData.ftCreationTime;
  if (size != -1) item->rFindData.SetFileSize(size);
  if (itemID) item->sItemID = std::string(itemID);
  item->nStorageIdx = storageIdx;
  item->bPersistent = persistent ? 1 : 0;
  item->bPopulated = populated ? 1 : 0;
  item->bSystem = system ? 1 : 0;
  item->ullPopulatedTimestamp = persistent && populated ? qb::sys::GetTickCount64() : 0;

  if (!TraceEnabled()) return;
  Trace(kTag, "LN = %s", item->sFullName.c_str());
  Trace(kTag, "FN = %s", item->rFindData.cFileName.c_str());
  Trace(kTag, "SZ = %lld", static_cast<long long>(item->rFindData.FileSize()));
  Trace(kTag, "FA = 0x%08X", item->rFindData.dwFileAttributes);
  Trace(kTag, "FS = %d", item->nStorageIdx);
  Trace(kTag, "PE = %d", item->bPersistent);
  Trace(kTag, "PO = %d", item->bPopulated);
  Trace(kTag, "SY = %d", item->bSystem);
  Trace(kTag, "II = %s", item->ItemIDText());
  Trace(kTag, "FP = %s", item->sFullPath.c_str());
  Trace(kTag, "UI = %s", item->sUniqueID.c_str());
  TraceTime(kTag, "CT", item->rFindData.ftCreationTime);
  TraceTime(kTag, "WT", item->rFindData.ftLastWriteTime);
}

int CDirectory::AddPersistentDirectory(int storageRoot, int insertFirst, const char* path,
                                       uint32_t extraAttributes, DirectoryItem** itemOut,
                                       const char* itemID, const char* parentID,
                                       const char* uniqueID, int populated, int system,
                                       int32_t storageIdx, const FILETIME* time) {
  static const char* kTag = "D8@CDirectory::AddPersistentDirectory: ";
  TraceEnter(kTag);
  if (!path) return TraceReturn(kTag, 0, 1);
  const FILETIME t = time ? *time : ProcessFallbackTime();
  std::string full;
  std::string name;
  std::string folder;
  if (std::string_view(path) == "\\") {
    full = name = "\\";
  } else {
    CopyField(&full, kNameCapacity, path);
    if (full.empty() || full.back() != '\\') return TraceReturn(kTag, 0, 2);
    std::string trimmed = full.substr(0, full.size() - 1);
    const size_t cut = trimmed.rfind('\\');
    if (cut == std::string::npos) {
      name = trimmed;
    } else {
      name = trimmed.substr(cut + 1);
      folder = trimmed.substr(0, cut) + "\\";
    }
  }
  const uint32_t attributes =
      FILE_ATTRIBUTE_DIRECTORY | extraAttributes | (system ? FILE_ATTRIBUTE_READONLY : 0);
  const int rc = _AddItem(insertFirst, name.c_str(), full.c_str(), "", attributes, 0, &t,
                          storageRoot ? 2 : 1, itemID, parentID, uniqueID, folder.c_str(),
                          itemOut, storageIdx, 1, populated, system);
  return TraceReturn(kTag, rc);
}

int CDirectory::AddPersistentDirectoryRecursive(int storageRoot, int insertFirst, const char* path,
                                                uint32_t extraAttributes, DirectoryItem** itemOut,
                                                const char* itemID, const char* parentID,
                                                const char* uniqueID, int populated, int system,
                                                int32_t storageIdx, const FILETIME* time) {
  static const char* kTag = "D9@CDirectory::AddPersistentDirectoryRecursive: ";
  TraceEnter(kTag);
  const int rc = AddPersistentDirectory(storageRoot, insertFirst, path, extraAttributes, itemOut,
                                        itemID, parentID, uniqueID, populated, system, storageIdx,
                                        time);
  if (!path) return TraceReturn(kTag, rc, 1);
  std::string rest;
  CopyField(&rest, kNameCapacity, path);
  if (rest.empty() || rest.back() != '\\') Trace(kTag, "Expected backslash");
  if (!rest.empty()) rest.pop_back();
  CollectionIndex* index = Index(storageRoot ? 2 : 1);
  for (size_t cut = rest.rfind('\\'); cut != std::string::npos; cut = rest.rfind('\\')) {
    rest.resize(cut);
    if (rest.empty()) continue;
    const std::string ancestor = rest + "\\";
    if (index && index->FindByFullName(ancestor, nullptr)) continue;
    AddPersistentDirectory(storageRoot, 0, ancestor.c_str(), 0, nullptr, itemID, parentID,
                           uniqueID, populated, system, storageIdx, time);
  }
  return TraceReturn(kTag, rc);
}

int CDirectory::AddDirectoryIfMissing(int storageRoot, const char* path, const char* itemID,
                                      const char* parentID, const char* uniqueID, int populated,
                                      int system, int32_t storageIdx, const FILETIME* time) {
  static const char* kTag = "D12@CDirectory::AddDirectoryIfMissing: ";
  TraceEnter(kTag);
  if (!path) return TraceReturn(kTag, 0, 1);
  std::string folder(path);
  const size_t cut = folder.rfind('\\');
  folder.resize(cut == std::string::npos ? 0 : cut + 1);
  CollectionIndex* index = Index(storageRoot ? 2 : 1);
  if (const DirectoryItem* found = index ? index->FindByFullName(folder, nullptr) : nullptr) {
    if (!found->bDeleted || found->bPopulated) return TraceReturn(kTag, 1, 2);
  }
  DirectoryItem* dropped = nullptr;
  const int rc = AddPersistentDirectoryRecursive(storageRoot, 0, folder.c_str(), 0, &dropped,
                                                 itemID, parentID, uniqueID, populated, system,
                                                 storageIdx, time);
  return TraceReturn(kTag, rc);
}

int CDirectory::AddDirectory(int storageRoot, const char* path, const char* itemID,
                             const char* parentID, const char* uniqueID, int populated,
                             int system, int32_t storageIdx, const FILETIME* time) {
  static const char* kTag = "D13@CDirectory::AddDirectory: ";
  TraceEnter(kTag);
  if (!KeepsOriginalPath()) return TraceReturn(kTag, 0, 1);
  const int rc = AddDirectoryIfMissing(storageRoot, path, itemID, parentID, uniqueID, populated,
                                       system, storageIdx, time);
  return TraceReturn(kTag, rc);
}

int CDirectory::AddListingRecord(const DeviceListingRecord& r) {
  using Kind = DeviceListingRecord::Kind;
  const FILETIME* time = r.ftTime ? &*r.ftTime : nullptr;
  switch (r.kind) {
    case Kind::Device:
      return 0;
    case Kind::Storage:
      return AddDirectory(1, r.sFolderPath.c_str(), r.sObjectID.c_str(), r.sParentID.c_str(),
                          r.sUniqueID.c_str(), r.bChildrenListed, 1, r.nStorage, time);
    case Kind::Folder: {
      const std::string path = r.sFolderPath + r.sName + "\\";
      return AddDirectory(0, path.c_str(), r.sObjectID.c_str(), r.sParentID.c_str(),
                          r.sUniqueID.c_str(), r.bChildrenListed, 0, r.nStorage, time);
    }
    case Kind::File: {
      const int rc = AddFile(r.sName.c_str(), r.sObjectID.c_str(), r.sParentID.c_str(),
                             r.sExtension.c_str(), static_cast<int64_t>(r.ullSize), time,
                             r.sObjectID.c_str(), r.sUniqueID.c_str(), r.sFolderPath.c_str(),
                             r.bReadOnly ? FILE_ATTRIBUTE_READONLY : 0, r.nStorage);
      AddSize(static_cast<int64_t>(r.ullSize));
      return rc;
    }
  }
  return 0;
}

int64_t CDirectory::AddSize(int64_t delta) {
  static const char* kTag = "D14@CDirectory::AddSize: ";
  m_llTotalSize += delta;
  if (m_llTotalSize < 0) {
    Trace(kTag, "Negative total size");
    m_llTotalSize = 0;
  }
  Trace(kTag, "%llu", static_cast<unsigned long long>(m_llTotalSize));
  return m_llTotalSize;
}
