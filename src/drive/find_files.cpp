// Folder listing (QuillboxFindFiles) with population on demand, the
// asynchronous listing and expiry of populated folders.
#include <optional>
#include <set>

#include "common/strings.h"
#include "diag/trace.h"
#include "drive/drive_internal.h"
#include "drive/write_side.h"
#include "platform/system/clock.h"

using namespace qb::drive;

namespace {

constexpr const char* kTag = "M5@QuillboxFindFiles: ";

// Names of synthesised folders already listed, compared ignoring A-Z case.
struct NoCaseLess {
  bool operator()(const std::string& a, const std::string& b) const {
    return qb::CompareNoCaseAZ(a, b) < 0;
  }
};
using ListedNames = std::set<std::string, NoCaseLess>;

FILETIME FolderTime() { return CDirectory::ProcessFallbackTime(); }

void ListDotEntries(PFillFindData fill, PDOKAN_FILE_INFO info) {
  for (const char* name : {".", ".."}) {
    WIN32_FIND_DATAW fd;
    fd.dwFileAttributes = FILE_ATTRIBUTE_DIRECTORY;
    fd.ftCreationTime = fd.ftLastAccessTime = fd.ftLastWriteTime = FolderTime();
    fd.cFileName = name;
    fill(&fd, info);
  }
}

// The enumeration of one list: entries directly in the folder, and one
// synthesised folder entry per first component of deeper items.
int Enumerate(const CDirectory::ItemList* list, ListedNames* listed, const std::string& folder,
              PFillFindData fill, PDOKAN_FILE_INFO info, bool folderList) {
  if (!list) return 0;
  int count = 0;
  for (DirectoryItem* item : Raw(*list)) {
    if (!item->IsLive() || item->sFullName.size() < folder.size() ||
        !qb::EqualsNoCaseAZ(std::string_view(item->sFullName).substr(0, folder.size()), folder))
      continue;
    const std::string_view rest = std::string_view(item->sFullName).substr(folder.size());
    const size_t slash = rest.find('\\');
    if (slash != std::string_view::npos) {
      const std::string name(qb::CutToUtf16(rest.substr(0, slash), 259));
      if (name.empty() || listed->count(name)) continue;
      if (fill) {
        WIN32_FIND_DATAW fd;
        fd.dwFileAttributes = FILE_ATTRIBUTE_DIRECTORY;
        fd.ftCreationTime = item->rFindData.ftCreationTime;
        fd.ftLastAccessTime = item->rFindData.ftLastAccessTime;
        fd.ftLastWriteTime = item->rFindData.ftLastWriteTime;
        fd.cFileName = name;
        fill(&fd, info);
      }
      listed->insert(name);
      ++count;
    } else if (!folderList) {
      if (fill) fill(&item->rFindData, info);
      ++count;
    } else if (item->bPersistent && rest.empty()) {
      ++count;
    }
  }
  return count;
}

// Moves what the asynchronous listing has delivered into the tree.
void MoveAsyncItems(DriveState* state, DirectoryItem* folder) {
  CDirectory* sub = folder->pSubDir.get();
  CWriteLock itemLock(folder->subDirLock.get());  // made with pSubDir
  CDirectory* tree = state->pDirectory.get();
  auto moveList = [&](CDirectory::ItemList* from, CDirectory::ItemList* to, uint32_t first, bool files) {
    if (!from || !to) return;
    while (from->Count() > first) {
      std::unique_ptr<DirectoryItem> item = from->Take(first);
      if (tree->FindFileByUniqueID(item->sUniqueID.c_str(), 0)) {
        Trace(kTag, files ? "Skipped file '%s': 0x%08X" : "Skipped directory '%s': 0x%08X",
              item->sFullName.c_str(), 0u);
        continue;
      }
      Trace(kTag, files ? "Moved file from async dirlist: 0x%08X" : "Moved directory from async dirlist: 0x%08X", 0u);
      // Taken in through the tree's own add, so that its indexes know it.
      DeviceListingRecord record;
      record.sObjectID = item->ItemIDText();
      record.sParentID = item->sParentID;
      record.sUniqueID = item->sUniqueID;
      record.nStorage = item->nStorageIdx;
      record.sFolderPath = item->sFullPath;
      record.ftTime = item->rFindData.ftLastWriteTime;
      record.bReadOnly = item->rFindData.dwFileAttributes & FILE_ATTRIBUTE_READONLY;
      if (files) {
        const std::string ext(ExtensionOf(item->rFindData.cFileName));
        record.kind = DeviceListingRecord::Kind::File;
        record.sName = item->rFindData.cFileName.substr(0, item->rFindData.cFileName.size() - ext.size());
        record.sExtension = ext.empty() ? "" : ext.substr(1);
        record.ullSize = static_cast<uint64_t>(item->rFindData.FileSize());
      } else {
        record.kind = DeviceListingRecord::Kind::Folder;
        record.sName = item->rFindData.cFileName;
        record.bChildrenListed = item->bPopulated;
      }
      tree->AddListingRecord(record);
    }
  };
  moveList(sub->m_pFiles.get(), tree->m_pFiles.get(), 0, true);
  moveList(sub->m_pPersistFolders.get(), tree->m_pPersistFolders.get(), 1, false);
}

// Populates one folder from the device. Called with the drive lock held for
// writing.
void Populate(DriveState* state, DirectoryItem* folder) {
  HRESULT hr = S_OK;
  if (!(state->dwStructureFlags & kFlagAsyncListing)) {
    hr = state->pHelper ? state->pHelper->GetDirlist(state->pDirectory.get(), state->nStorageIndex,
                                                     folder->sFullName.c_str(), folder->ItemIDText(),
                                                     0, 0, nullptr)
                        : E_FAIL;
    if (SUCCEEDED(hr)) {
      folder->bPopulated = 1;
      folder->ullPopulatedTimestamp = qb::sys::GetTickCount64();
    }
  } else {
    if (!folder->pSubDir) {
      if (!folder->subDirLock) folder->subDirLock = std::make_unique<CMutexRW>();
      folder->pSubDir = std::make_unique<CDirectory>(folder->subDirLock.get());
      folder->pSubDir->Init("\\", 1);
      folder->pSubDir->SetNamingPattern(state->pDirectory->GetNamingPattern());
      folder->bSubDirDone = 0;
      Trace(kTag, "ASYNC dirlist requested: \"%s\", 0x%08X", folder->sFullName.c_str(), 0u);
      std::shared_ptr<CThreadHandle> thread;
      hr = state->pHelper ? state->pHelper->GetDirlistAsync(
                                folder->pSubDir.get(), folder->nStorageIdx, folder->sFullName.c_str(),
                                folder->ItemIDText(), 0, 0, nullptr,
                                reinterpret_cast<std::atomic<uint32_t>*>(&folder->bSubDirDone), 1,
                                state->cDriveLetter, &thread)
                          : E_FAIL;
      if (thread) thread->Wait(std::chrono::milliseconds(1000));
    }
    if (SUCCEEDED(hr)) {
      MoveAsyncItems(state, folder);
      if (reinterpret_cast<std::atomic<uint32_t>*>(&folder->bSubDirDone)->load()) {
        folder->bPopulated = 1;
        folder->ullPopulatedTimestamp = qb::sys::GetTickCount64();
        folder->pSubDir.reset();
        Trace(kTag, "ASYNC dirlist finished: \"%s\"", folder->sFullName.c_str());
      }
    }
  }
  if (SUCCEEDED(hr)) state->pDirectory->Sort(state->nStorageIndex);
}

bool Expired(DriveState* state, const DirectoryItem* item) {
  if (!(state->dwStructureFlags & kFlagListingExpires) || !item->bPopulated) return false;
  return qb::sys::GetTickCount64() - item->ullPopulatedTimestamp >
         uint64_t{state->dwExpiryIntervalSec} * 1000;
}

// Population on demand (original structure only): switches from the read
// lock to the write lock when the folder needs the device.
void PopulateIfNeeded(DriveState* state, std::optional<CReadLock>& readLock, const std::string& request,
                      const std::string& folder) {
  if ((state->dwStructureFlags & kStructureMask) != 0 || !(state->dwStructureFlags & kFlagPopulateOnDemand))
    return;
  DirectoryItem* item = FindFolder(state, folder);
  if (!item || (item->bPopulated && !Expired(state, item))) return;
  readLock.reset();
  {
    CWriteLock writeLock(&state->rDriveLock);
    item = FindFolder(state, folder);  // the tree may have changed meanwhile
    if (item && item->bPopulated && Expired(state, item)) {
      Trace(kTag, "Forcing refresh of \"%s\" [%s]: %u, %u", request.c_str(), item->sFullName.c_str(),
            static_cast<unsigned>(qb::sys::GetTickCount64()),
            static_cast<unsigned>(item->ullPopulatedTimestamp));
      RemoveAll(state, request);
      item->bPopulated = 0;
      item->ullPopulatedTimestamp = 0;
    }
    if (item && !item->bPopulated) {
      Trace(kTag, "Populating directory \"%s\"", item->sFullName.c_str());
      Populate(state, item);
    }
  }
  readLock.emplace(&state->rDriveLock);
}

}  // namespace

namespace qb::drive {

// A path that the tree does not hold may lie in a folder that was never
// listed: programs on Linux open paths without listing their folders first.
// Populates the deepest known ancestor folder while it is not populated, then
// the next one down, until the path is found or no folder is left to list.
void PopulateAncestorsOf(DriveState* state, const std::string& path) {
  if (!IsOriginalStructure(state) || !(state->dwStructureFlags & kFlagPopulateOnDemand)) return;
  for (int round = 0; round < 64; ++round) {
    DirectoryItem* unlisted = nullptr;
    {
      CReadLock lock(&state->rDriveLock);
      if (FindFile(state, path) || FindFolder(state, path)) return;
      std::string ancestor = ParentPath(path.size() > 1 && path.back() == '\\' ? path.substr(0, path.size() - 1) : path);
      for (;;) {
        DirectoryItem* folder = FindFolder(state, ancestor);
        if (folder) {
          if (!folder->bPopulated) unlisted = folder;
          break;
        }
        if (ancestor == "\\") break;
        ancestor = ParentPath(ancestor.substr(0, ancestor.size() - 1));
      }
      if (!unlisted) return;
    }
    CWriteLock lock(&state->rDriveLock);
    if (unlisted->bPopulated || !unlisted->IsLive()) continue;
    Trace(kTag, "Populating directory \"%s\"", unlisted->sFullName.c_str());
    Populate(state, unlisted);
    if (!unlisted->bPopulated) return;  // the device did not answer: give up
  }
}

}  // namespace qb::drive

NTSTATUS QuillboxFindFiles(LPCWSTR PathName, PFillFindData FillFindData, PDOKAN_FILE_INFO DokanFileInfo) {
  const std::string request(PathName ? PathName : "");
  Trace(kTag, "FileName=\"%s\"", request.c_str());
  DriveState* state = GetDriveState();
  if (request.empty() || !state || !state->pDirectory) {
    Trace(kTag, "Invalid argument");
    return TraceStatus(kTag, STATUS_UNSUCCESSFUL, 4);
  }
  std::optional<CReadLock> lock(std::in_place, &state->rDriveLock);
  if (state->pDirectory->GetRootDir()[0] == '\0') {
    Trace(kTag, "Directory list for device \"%s\" not available", state->sDeviceName.c_str());
    return TraceStatus(kTag, STATUS_UNSUCCESSFUL, 1);
  }
  if (!state->pDirectory->m_pFiles) {
    Trace(kTag, "The root Directory for device \"%s\" is empty", state->sDeviceName.c_str());
    return TraceStatus(kTag, STATUS_SUCCESS, 2);
  }
  const std::string folder = WithBackslash(request);
  PopulateIfNeeded(state, lock, request, folder);
  if (request != "\\") ListDotEntries(FillFindData, DokanFileInfo);
  ListedNames listed;
  int count = Enumerate(state->pDirectory->m_pFiles.get(), &listed, folder, FillFindData, DokanFileInfo, false);
  if (count == 0 && (state->dwStructureFlags & kStructureMask) == kStructureVirtual)
    Trace(kTag, "Folder \"%s\" is empty", request.c_str());
  else
    count += Enumerate(state->pDirectory->m_pPersistFolders.get(), &listed, folder, FillFindData,
                       DokanFileInfo, true);
  if (count == 0) {
    lock.reset();
    RemoveDirFromPersistFolders(state, request, 1);
    Trace(kTag, "FindFiles return %d entries in \"%s\"", count, request.c_str());
    return TraceStatus(kTag, STATUS_SUCCESS, 3);
  }
  Trace(kTag, "FindFiles return %d entries in \"%s\"", count, request.c_str());
  return TraceStatus(kTag, STATUS_SUCCESS, 3);
}

void RemoveAll(DriveState* state, const std::string& folderPath) {
  static const char* tag = "M51@RemoveAll: ";
  const std::string folder = WithBackslash(folderPath);
  auto rest = [&](const DirectoryItem* item) -> std::optional<std::string_view> {
    if (!item->IsLive() || item->sFullName.size() < folder.size() ||
        !qb::EqualsNoCaseAZ(std::string_view(item->sFullName).substr(0, folder.size()), folder))
      return std::nullopt;
    return std::string_view(item->sFullName).substr(folder.size());
  };
  for (DirectoryItem* item : Raw(*state->pDirectory->m_pFiles)) {
    auto r = rest(item);
    // A file whose download runs keeps its record: the tree refills deleted
    // records, and the transfer still writes through this one. So does an
    // open file: its opens answer from the record.
    if (r && r->find('\\') == std::string_view::npos && !item->bDownloading && !item->nOpenHolds.load()) {
      Trace(tag, "File: %s", item->sFullName.c_str());
      item->bDeleted = 1;
    }
  }
  for (DirectoryItem* item : Raw(*state->pDirectory->m_pPersistFolders)) {
    auto r = rest(item);
    if (r && !r->empty() && r->find('\\') == r->size() - 1) {
      Trace(tag, "Directory: %s", item->sFullName.c_str());
      item->bDeleted = 1;
      item->bPopulated = 0;
    }
  }
}

HRESULT RemoveDirFromPersistFolders(DriveState* state, const std::string& path, int treeOnly) {
  static const char* tag = "M52@RemoveDirFromPersistFolders: ";
  Trace(tag, "FileName=\"%s\"", path.c_str());
  DirectoryItem* onDevice = nullptr;  // write side: the folder to delete on the device
  {
    CWriteLock lock(&state->rDriveLock);
    DirectoryItem* folder = FindFolder(state, path);
    if (folder && !treeOnly && !folder->bSystem && path != "\\") {
      onDevice = folder;
    } else if (folder) {
      if (folder->bSystem) return TraceStatus(tag, 1, 1);
      if (path == "\\") return TraceStatus(tag, 1, 2);
      Trace(tag, "Removed virtual persistent folder \"%s\"", path.c_str());
      // The record stays owned by the tree (others may hold its address);
      // marking it deleted takes it out of every lookup and listing.
      folder->bDeleted = 1;
      folder->bPopulated = 0;
    }
  }
  if (onDevice) {
    const HRESULT hr = DeleteFolderOnDevice(state, onDevice, path);
    if (FAILED(hr)) return TraceStatus(tag, hr, 4);
  }
  std::string parent = path;
  if (!parent.empty() && parent.back() == '\\') parent.pop_back();
  parent = parent.substr(0, parent.rfind('\\'));
  RefreshShell(state, SHCNE_UPDATEDIR, parent.empty() ? "\\" : parent);
  return TraceStatus(tag, 1, 3);
}
