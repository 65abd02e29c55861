// Completion waits (SignalEventDone / DiscardEventDone) and the re-listing
// of a folder when the device's own confirmation did not come in time.
#include <map>

#include "common/strings.h"
#include "diag/trace.h"
#include "drive/write_side.h"
#include "platform/system/clock.h"

using namespace qb::drive;

namespace {

constexpr const char* kTagSignal = "M70@SignalEventDone: ";
constexpr const char* kTagDiscard = "M71@DiscardEventDone: ";
constexpr const char* kTagRelist = "M72@RelistFolder: ";

unsigned Handle(const CSyncEvent* event) {
  return static_cast<unsigned>(reinterpret_cast<uintptr_t>(event));
}

// Unique ids of what the device holds in the folder, with each object's
// name, read into a scratch tree so that records others point to are never
// refilled by the listing.
bool ListOnDevice(DriveState* state, const DirectoryItem* folder, std::map<std::string, std::string>* ids) {
  CDirectory scratch;
  scratch.Init("\\", 1);
  scratch.SetNamingPattern(state->pDirectory->GetNamingPattern());
  if (!state->pHelper ||
      FAILED(state->pHelper->GetDirlist(&scratch, state->nStorageIndex, folder->sFullName.c_str(),
                                        FolderDeviceId(state, folder).c_str(), 0, 0, nullptr)))
    return false;
  for (const CDirectory::ItemList* list : {scratch.m_pFiles.get(), scratch.m_pPersistFolders.get()})
    if (list)
      for (DirectoryItem* item : Raw(*list))
        if (item->IsLive() && !item->sUniqueID.empty()) ids->emplace(item->sUniqueID, item->rFindData.cFileName);
  return true;
}

// Whether the item lies directly in the folder.
bool DirectlyIn(const DirectoryItem* item, const std::string& folder) {
  const std::string& full = item->sFullName;
  if (full.size() <= folder.size() || !qb::EqualsNoCaseAZ(std::string_view(full).substr(0, folder.size()), folder))
    return false;
  const std::string_view rest = std::string_view(full).substr(folder.size());
  const size_t slash = rest.find('\\');
  return slash == std::string_view::npos || slash == rest.size() - 1;
}

// Called with the drive lock held for writing.
void RelistFolder(DriveState* state, DirectoryItem* folder) {
  std::map<std::string, std::string> onDevice;
  if (!ListOnDevice(state, folder, &onDevice)) {
    Trace(kTagRelist, "Listing failed: \"%s\"", folder->sFullName.c_str());
    return;
  }
  const std::string path = folder->sFullName;
  for (const CDirectory::ItemList* list :
       {state->pDirectory->m_pFiles.get(), state->pDirectory->m_pPersistFolders.get()}) {
    if (!list) continue;
    for (DirectoryItem* item : Raw(*list)) {
      // Provisional items have no device object yet; they stay.
      if (!item->IsLive() || IsProvisional(item) || item->bSystem || item->bDownloading || item->bUploadPending ||
          !DirectlyIn(item, path))
        continue;
      auto found = onDevice.find(item->sUniqueID);
      if (found == onDevice.end()) {
        Trace(kTagRelist, "Gone: \"%s\"", item->sFullName.c_str());
        MarkGone(state, item);
      } else if (!item->bPersistent && found->second != item->rFindData.cFileName) {
        // Renamed on the device (its confirmation did not come in time).
        Trace(kTagRelist, "Renamed: \"%s\" to \"%s\"", item->sFullName.c_str(), found->second.c_str());
        const std::string& name = found->second;
        std::string fullName = path + name.substr(0, name.size() - ExtensionOf(name).size());
        CDirectory::StripColons(fullName);
        RenameItem(state, item, fullName, name);
      }
    }
  }
  if (SUCCEEDED(state->pHelper->GetDirlist(state->pDirectory.get(), state->nStorageIndex, path.c_str(),
                                           FolderDeviceId(state, folder).c_str(), 0, 0, nullptr)))
    state->pDirectory->Sort(state->nStorageIndex);
  RefreshShell(state, SHCNE_UPDATEDIR, path.size() > 1 ? path.substr(0, path.size() - 1) : path);
}

}  // namespace

namespace qb::drive {

bool IsProvisional(const DirectoryItem* item) {
  return item->sItemID && item->sItemID->compare(0, 5, "DMYID") == 0;
}

std::string FolderDeviceId(const DriveState* state, const DirectoryItem* folder) {
  if (!folder) return {};
  if (folder->sItemID) return *folder->sItemID;
  if (folder->sFullName != "\\" || !state->pDirectory->m_pStorageRoots) return {};
  const DirectoryItem* only = nullptr;
  int count = 0;
  for (DirectoryItem* root : Raw(*state->pDirectory->m_pStorageRoots)) {
    if (!root->IsLive() || !root->sItemID) continue;
    if (state->nStorageIndex && root->nStorageIdx == state->nStorageIndex) return *root->sItemID;
    only = root;
    ++count;
  }
  return count == 1 ? *only->sItemID : std::string();
}

std::shared_ptr<CSyncEvent> RegisterWait(DriveState* state, const std::string& name) {
  auto event = std::make_shared<CSyncEvent>(true);
  {
    std::lock_guard hold(state->hEventDoneMutex);
    state->EventDoneNames.push_back(name);
    state->EventDoneEvents.push_back(event);
  }
  Trace("M73@RegisterWait: ", ">>0x%08X", Handle(event.get()));
  return event;
}

bool AwaitConfirmation(DriveState* state, const std::shared_ptr<CSyncEvent>& wait, uint32_t limitMs) {
  if (wait->WaitFor(std::chrono::milliseconds(limitMs))) return true;
  Trace("M73@RegisterWait: ", ">>Callback was not called (0x%08X)", Handle(wait.get()));
  DiscardEventDone(wait);
  (void)state;
  return false;
}

void RelistFolderById(DriveState* state, const std::string& folderId) {
  CWriteLock lock(&state->rDriveLock);
  DirectoryItem* folder = state->pDirectory->FindFileByItemID(folderId.c_str(), 0);
  if (folder && folder->sFullName == "\\") folder = FindFolder(state, "\\");  // a storage root
  if (!folder && FolderDeviceId(state, FindFolder(state, "\\")) == folderId) folder = FindFolder(state, "\\");
  if (!folder || !folder->bPersistent) {
    Trace(kTagRelist, "ParentID not found: \"%s\"", folderId.c_str());
    return;
  }
  RelistFolder(state, folder);
}

void RelistFolderOfPath(DriveState* state, const std::string& path) {
  std::string trimmed = path;
  if (trimmed.size() > 1 && trimmed.back() == '\\') trimmed.pop_back();
  CWriteLock lock(&state->rDriveLock);
  DirectoryItem* folder = FindFolder(state, ParentPath(trimmed));
  if (FolderDeviceId(state, folder).empty()) {
    Trace(kTagRelist, "ParentID not found: \"%s\"", ParentPath(trimmed).c_str());
    return;
  }
  RelistFolder(state, folder);
}

void RenameItem(DriveState* state, DirectoryItem* item, const std::string& fullName, const std::string& name) {
  const std::string before = item->sFullName, oldCacheName = CacheName(item), oldFileName = item->rFindData.cFileName;
  state->pDirectory->ChangePathItem(item, before.c_str(), fullName.c_str(), item->bPersistent, name.c_str(), 1);
  if (item->bPersistent)
    state->pDirectory->ChangePathChildren(before.c_str(), fullName.c_str(), item->ItemIDText());
  else
    RenameCopy(state, item, oldCacheName, oldFileName);
}

bool WriteSupported(DriveState* state) {
  int answer = state->nWriteSupported;
  if (answer == 1 && qb::sys::GetTickCount64() - state->ullWriteAnswerMs >= kWriteAnswerMs) answer = -1;
  if (answer < 0) {
    answer = state->pHelper && SUCCEEDED(state->pHelper->IsWriteSupported()) ? 1 : 0;
    state->ullWriteAnswerMs = qb::sys::GetTickCount64();
    state->nWriteSupported = answer;
  }
  return answer == 1;
}

void ForgetWriteAnswer(DriveState* state) { state->nWriteSupported = -1; }

void ForgetWriteRefusal(DriveState* state) {
  int refused = 0;
  state->nWriteSupported.compare_exchange_strong(refused, -1);
}

bool WriteAllowed(DriveState* state) {
  if (WriteSupported(state)) return true;
  Trace("M74@WriteAllowed: ", "Write access not supported");
  return false;
}

}  // namespace qb::drive

void SignalEventDone(const std::string& name) {
  DriveState* state = GetDriveState();
  if (!state) return;
  Trace(kTagSignal, "%s", name.c_str());
  std::lock_guard hold(state->hEventDoneMutex);
  int count = 0;
  for (size_t i = 0; i < state->EventDoneNames.size();) {
    if (!qb::EqualsNoCaseAZ(state->EventDoneNames[i], name)) {
      ++i;
      continue;
    }
    Trace(kTagSignal, ">>Signalling '%s', 0x%08X", name.c_str(), Handle(state->EventDoneEvents[i].get()));
    state->EventDoneEvents[i]->Set();
    state->EventDoneNames.erase(state->EventDoneNames.begin() + static_cast<ptrdiff_t>(i));
    state->EventDoneEvents.erase(state->EventDoneEvents.begin() + static_cast<ptrdiff_t>(i));
    ++count;
  }
  Trace(kTagSignal, "Signalled: %d", count);
  for (size_t i = 0; i < state->EventDoneNames.size(); ++i)
    Trace(kTagSignal, "%d:'%s', 0x%08X", static_cast<int>(i), state->EventDoneNames[i].c_str(),
          Handle(state->EventDoneEvents[i].get()));
}

void DiscardEventDone(const std::shared_ptr<CSyncEvent>& event) {
  DriveState* state = GetDriveState();
  if (!state || !event) return;
  std::lock_guard hold(state->hEventDoneMutex);
  for (size_t i = 0; i < state->EventDoneEvents.size();) {
    if (state->EventDoneEvents[i] != event) {
      ++i;
      continue;
    }
    Trace(kTagDiscard, ">>Removing '%s', 0x%08X", state->EventDoneNames[i].c_str(), Handle(event.get()));
    state->EventDoneNames.erase(state->EventDoneNames.begin() + static_cast<ptrdiff_t>(i));
    state->EventDoneEvents.erase(state->EventDoneEvents.begin() + static_cast<ptrdiff_t>(i));
  }
}
