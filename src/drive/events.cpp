// The event worker's changes to the tree for objects created, deleted and
// updated on the device, by the drive itself or by anyone else.
#include <optional>

#include "common/strings.h"
#include "diag/trace.h"
#include "drive/write_side.h"

using namespace qb::drive;

namespace {

constexpr const char* kTag = "M41@ProcessCurrentEventQueueItem: ";

std::string WithoutBackslash(const std::string& path) {
  return path.size() > 1 && path.back() == '\\' ? path.substr(0, path.size() - 1) : path;
}

// The drive path of an item: a file's with its extension, a folder's
// with its trailing backslash.
std::string DrivePath(const DirectoryItem* item) {
  return item->bPersistent ? item->sFullName : item->sFullPath + item->rFindData.cFileName;
}

std::string ParentPathOf(DriveState* state, const std::string& parentId) {
  if (parentId.empty()) return {};
  if (FolderDeviceId(state, FindFolder(state, "\\")) == parentId) return "\\";
  std::string path;
  if (!state->pDirectory->GetFullPathByUniqueID(&path, qb::directory::kFullNameCapacity, parentId.c_str(), 0))
    return {};
  return WithBackslash(path);
}

// The unique id under which the tree files the event's object.
std::string TreeUniqueID(const EventItem& event) {
  return std::string(qb::CutToUtf16(event.sUniqueID, qb::directory::kIdCapacity - 1));
}

// The date the tree shows for an object, chosen as the device listing
// chooses it.
std::optional<FILETIME> EventTime(const CDirectory& tree, const EventItem& event) {
  std::optional<FILETIME> time;
  if (tree.GetFlagUseCreateTime() && event.bHasCreated) time = event.ftCreated;
  else if (event.bHasModified) time = event.ftModified;
  else if (event.bHasCreated) time = event.ftCreated;
  if (time && tree.GetFlagDstFiletimeFix()) tree.FixDstFiletime(&*time, event.sOriginalName.c_str());
  return time;
}

// Adds the object to the tree from the event alone: the device's event
// sink has read the object's own properties, so the folder needs no new
// listing (which would cost in proportion to the folder, per object). A
// record of the drive's own upload ("DMYID...") is refilled in place.
// False when the event does not name the object.
bool AddFromEvent(DriveState* state, const EventItem& event, const std::string& parentPath) {
  if (event.sOriginalName.empty()) return false;
  DeviceListingRecord record;
  record.sObjectID = event.sUniqueID;
  record.sParentID = event.sParentID;
  record.sUniqueID = TreeUniqueID(event);
  record.kind = event.bFolder ? DeviceListingRecord::Kind::Folder : DeviceListingRecord::Kind::File;
  record.sName = event.sOriginalName;
  const size_t dot = event.bFolder ? std::string::npos : record.sName.rfind('.');
  if (dot != std::string::npos) {
    record.sExtension = record.sName.substr(dot + 1);
    record.sName.resize(dot);
  }
  record.ullSize = event.bHasSize ? event.ullSize : 0;
  record.ftTime = EventTime(*state->pDirectory, event);
  record.bReadOnly = event.bHasAttributes && (event.dwAttributes & FILE_ATTRIBUTE_READONLY);
  record.nStorage = state->nStorageIndex;
  record.sFolderPath = parentPath;
  if (state->pDirectory->AddListingRecord(record)) state->pDirectory->Sort(state->nStorageIndex);
  return true;
}

void ItemUpdated(DriveState* state, const EventItem& event);

// Whether the event shows a held object under another name or in another
// folder: a device may report a renamed or moved object as added. (Names
// of the original structure only: the virtual one shows names of its own.)
bool MovedOrRenamed(const DirectoryItem* item, const EventItem& event) {
  return (!event.sOriginalName.empty() && event.sOriginalName != item->rFindData.cFileName) ||
         (!event.sParentID.empty() && event.sParentID != item->sParentID);
}

void ItemCreated(DriveState* state, const EventItem& event) {
  Trace(kTag, "retrieved EVENT_ITEM_CREATED: \"%s\"", event.sUniqueID.c_str());
  std::string signal, folder;
  bool sameListing = false, sameItem = false;
  int64_t ownSize = -1;
  {
    CWriteLock lock(&state->rDriveLock);
    if (const DirectoryItem* held = state->pDirectory->FindFileByUniqueID(TreeUniqueID(event).c_str(), 0);
        held && IsOriginalStructure(state) && MovedOrRenamed(held, event)) {
      lock.Unlock();
      ItemUpdated(state, event);
      return;
    }
    DirectoryItem* parent = state->pDirectory->FindFileByItemID(event.sParentID.c_str(), 0);
    if (ParentPathOf(state, event.sParentID) == "\\") parent = FindFolder(state, "\\");
    if (!parent || !parent->bPersistent) return;  // listed with its folder later
    std::string parentPath = ParentPathOf(state, event.sParentID);
    if (parentPath.empty()) parentPath = parent->sFullName;
    if (parentPath.empty()) {
      Trace(kTag, "ParentID not found: \"%s\"", event.sParentID.c_str());
      return;
    }
    folder = WithoutBackslash(parentPath);
    // A folder never listed learns of the object at its first listing.
    if (!parent->bPopulated && parentPath != "\\") {
      lock.Unlock();
      RefreshShell(state, SHCNE_UPDATEDIR, folder);
      return;
    }
    // An object the tree already holds (the drive's own upload, taken in by
    // a re-listing) only confirms; an unnamed one needs the folder listed.
    const std::string uniqueId = TreeUniqueID(event);
    // The drive's own upload under the name it was created with: the
    // folder's listing shows that name since the create, and the kernel
    // knows the file's size from the writes; only a changed size needs the
    // item refreshed (times follow with the kernel's attribute cache).
    if (const DirectoryItem* own = event.bFolder ? nullptr : FindFile(state, parentPath + event.sOriginalName);
        own && IsProvisional(own)) {
      sameListing = true;
      ownSize = own->rFindData.FileSize();
    }
    if (!state->pDirectory->FindFileByUniqueID(uniqueId.c_str(), 0) &&
        !AddFromEvent(state, event, parentPath) &&
        SUCCEEDED(state->pHelper->GetDirlist(state->pDirectory.get(), state->nStorageIndex, parentPath.c_str(),
                                             event.sParentID.c_str(), 0, 0, nullptr)))
      state->pDirectory->Sort(state->nStorageIndex);
    if (DirectoryItem* item = state->pDirectory->FindFileByUniqueID(uniqueId.c_str(), 0)) {
      signal = DrivePath(item);
      sameItem = sameListing && item->rFindData.FileSize() == ownSize;
    }
    if (!signal.empty()) SignalEventDone(signal);
  }
  if (!sameListing || signal.empty()) RefreshShell(state, SHCNE_UPDATEDIR, folder);
  if (!signal.empty() && !sameItem) RefreshShell(state, SHCNE_UPDATEITEM, WithoutBackslash(signal));
}

// A live or pending-delete file item with the unique id.
DirectoryItem* FileByUniqueID(DriveState* state, const std::string& id) {
  for (DirectoryItem* item : Raw(*state->pDirectory->m_pFiles))
    if (item->bPendingDelete && !item->bDeleted && item->sUniqueID == id) return item;
  DirectoryItem* item = state->pDirectory->FindFileByUniqueID(id.c_str(), 0);
  return item && !item->bPersistent ? item : nullptr;
}

// Marks everything below a folder deleted.
void DropBelow(DriveState* state, const std::string& folder) {
  for (const CDirectory::ItemList* list : {state->pDirectory->m_pFiles.get(), state->pDirectory->m_pPersistFolders.get()})
    for (DirectoryItem* item : Raw(*list))
      if (!item->bDeleted && item->sFullName.size() > folder.size() &&
          qb::EqualsNoCaseAZ(std::string_view(item->sFullName).substr(0, folder.size()), folder))
        MarkGone(state, item);
}

void ItemDeleted(DriveState* state, const EventItem& event) {
  Trace(kTag, "retrieved EVENT_ITEM_DELETED: \"%s\"", event.sUniqueID.c_str());
  std::string refresh = "\\", gone;
  {
    CWriteLock lock(&state->rDriveLock);
    if (DirectoryItem* item = FileByUniqueID(state, TreeUniqueID(event)); item && IsBeingReplaced(item)) {
      // Its own upload deleted the old object: the name stays, the new
      // object takes the record over.
      SignalEventDone(item->ItemIDText());
      return;
    } else if (item) {
      MarkGone(state, item);
      if (item->hRegionsToDownloadMutex) {
        Trace(kTag, "WAIT 5065 (0x%08X)", 0u);
        std::lock_guard regions(*item->hRegionsToDownloadMutex);
        if (item->pRegionsToDownload) item->pRegionsToDownload->Clear();
        Trace(kTag, "RELEASE_MUTEX 5074 (0x%08X)", 0u);
      }
      SignalEventDone(item->ItemIDText());
      refresh = WithoutBackslash(item->sFullPath.empty() ? std::string("\\") : item->sFullPath);
      gone = DrivePath(item);
    } else if (DirectoryItem* folder = state->pDirectory->FindFileByUniqueID(TreeUniqueID(event).c_str(), 0);
               folder && folder->bPersistent && !folder->bSystem) {
      folder->bDeleted = 1;
      folder->bPopulated = 0;
      DropBelow(state, folder->sFullName);
      SignalEventDone(folder->sFullName);
      gone = folder->sFullName;
      refresh = WithoutBackslash(ParentPath(WithoutBackslash(gone)));
    } else {
      Trace(kTag, "EVENT_ITEM_DELETED: cannot delete the item, need full directory refresh");
      // Nothing of it is in the tree (a folder never listed, or an object
      // the tree never held): the folders already listed stay as they are.
    }
  }
  RefreshShell(state, SHCNE_UPDATEDIR, refresh);
  if (!gone.empty()) RefreshShell(state, SHCNE_DELETE, WithoutBackslash(gone));
}

// A file whose content changed on the device (another size or modification
// time) loses its cache copy, which may have the same size and creation
// time and would pass as valid. Copies with a pending upload or a running
// download stay. Called with the drive lock held for writing.
void DropChangedCopy(DriveState* state, DirectoryItem* item, const EventItem& event) {
  if (!state->pCache || item->bPersistent || item->bUploadPending || item->bDownloading) return;
  const bool changed = (event.bHasSize && static_cast<int64_t>(event.ullSize) != item->rFindData.FileSize()) ||
                       (event.bHasModified && !(event.ftModified == item->rFindData.ftLastWriteTime));
  if (!changed) return;
  CCacheItem* entry = state->pCache->Find(CacheName(item), item->rFindData.cFileName);
  if (!entry) return;
  Trace(kTag, "Content changed on the device: \"%s\"", DrivePath(item).c_str());
  state->pCache->Delete(&entry, 1);
}

void ItemUpdated(DriveState* state, const EventItem& event) {
  Trace(kTag, "retrieved EVENT_ITEM_UPDATED: \"%s\"", event.sUniqueID.c_str());
  std::string oldPath, newPath, refreshOld, refreshNew;
  {
    CWriteLock lock(&state->rDriveLock);
    DirectoryItem* item = state->pDirectory->FindFileByUniqueID(TreeUniqueID(event).c_str(), 0);
    if (!item) {
      // Moved in from a folder the tree does not hold: take it as new.
      lock.Unlock();
      ItemCreated(state, event);
      return;
    }
    state->pDirectory->Dump(CDirectory::kDumpFiles | CDirectory::kDumpPersistFolders, "UPDATE-BEFORE:", item, nullptr);
    DropChangedCopy(state, item, event);
    const std::string parentId = event.sParentID.empty() ? item->sParentID : event.sParentID;
    std::string parentPath = ParentPathOf(state, parentId);
    if (parentPath.empty()) {
      // Moved out into a folder the tree does not hold: it leaves this view.
      Trace(kTag, "ParentID not found: \"%s\"", parentId.c_str());
      oldPath = DrivePath(item);
      MarkGone(state, item);
      if (item->bPersistent) DropBelow(state, item->sFullName);
      SignalEventDone(item->ItemIDText());
      refreshOld = WithoutBackslash(ParentPath(WithoutBackslash(oldPath)));
    } else {
      oldPath = DrivePath(item);
      const std::string name = event.sOriginalName.empty() ? item->rFindData.cFileName : event.sOriginalName;
      std::string fullName = item->bPersistent ? parentPath + name + "\\"
                                               : parentPath + name.substr(0, name.size() - ExtensionOf(name).size());
      CDirectory::StripColons(fullName);
      if (!qb::EqualsNoCaseAZ(fullName, item->sFullName) || name != item->rFindData.cFileName) {
        RenameItem(state, item, fullName, name);
        item->sParentID = parentId;
      } else {
        Trace(kTag, "No change in filename/path");
      }
      if (event.bHasAttributes)
        item->rFindData.dwFileAttributes =
            (item->rFindData.dwFileAttributes & ~(FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM)) |
            event.dwAttributes;
      if (event.bHasSize && !item->bPersistent && !item->bUploadPending) {
        state->pDirectory->AddSize(static_cast<int64_t>(event.ullSize) - item->rFindData.FileSize());
        item->rFindData.SetFileSize(static_cast<int64_t>(event.ullSize));
      }
      if (event.bHasCreated) item->rFindData.ftCreationTime = event.ftCreated;
      if (event.bHasModified) item->rFindData.ftLastWriteTime = item->rFindData.ftLastAccessTime = event.ftModified;
      state->pDirectory->Sort(state->nStorageIndex);
      SignalEventDone(item->ItemIDText());
      newPath = DrivePath(item);
      refreshOld = WithoutBackslash(ParentPath(WithoutBackslash(oldPath)));
      refreshNew = WithoutBackslash(parentPath);
    }
  }
  if (!newPath.empty() && newPath != oldPath) RefreshShell(state, SHCNE_RENAMEITEM, WithoutBackslash(oldPath));
  RefreshShell(state, SHCNE_UPDATEITEM, WithoutBackslash(newPath.empty() ? oldPath : newPath));
  if (!refreshOld.empty()) RefreshShell(state, SHCNE_UPDATEDIR, refreshOld);
  if (!refreshNew.empty() && refreshNew != refreshOld) RefreshShell(state, SHCNE_UPDATEDIR, refreshNew);
}

}  // namespace

namespace qb::drive {

void ProcessItemEvent(DriveState* state, const EventItem& event) {
  if (!state->pDirectory || !state->pDirectory->m_pFiles) return;
  switch (event.dwEvent) {
    case EVENT_ITEM_CREATED: ItemCreated(state, event); break;
    case EVENT_ITEM_DELETED: ItemDeleted(state, event); break;
    case EVENT_ITEM_UPDATED: ItemUpdated(state, event); break;
    default: break;
  }
}

}  // namespace qb::drive
