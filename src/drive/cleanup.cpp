// The cleanup of a handle: the device delete of a file, and the upload of
// its pending content with the rescue of what could not reach the device.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <set>

#include "common/strings.h"
#include "diag/trace.h"
#include "drive/write_side.h"
#include "platform/dokan/dokan_linux.h"
#include "platform/system/clock.h"

using namespace qb::drive;

namespace {

constexpr const char* kTag = "M36@QuillboxCleanup: ";
constexpr const char* kTagUpload = "M37@UploadPending: ";
constexpr const char* kTagPut = "M38@PutFileDataCallback: ";
constexpr DWORD kDeviceAttributes = FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM;
constexpr HRESULT kDeviceGone = static_cast<HRESULT>(0x80210005u);
constexpr HRESULT kDiskFull = static_cast<HRESULT>(0x80070070u);

struct UploadProgress {
  uint64_t* pullAlreadyUploaded = nullptr;
  int hLocalFile = -1;
  uint64_t ullFileSize = 0;
  uint32_t dwError = 0;
};

HRESULT PutFileDataCallback(void* context, uint8_t* buffer, uint32_t length, uint64_t offset,
                            const char* path, uint32_t* supplied) {
  auto* progress = static_cast<UploadProgress*>(context);
  Trace(kTagPut, "%ld, %lld", static_cast<long>(length), static_cast<long long>(offset));
  if (supplied) *supplied = 0;
  if (!progress || !buffer || !path) return S_OK;
  if (offset == 0 && progress->hLocalFile < 0) {
    progress->hLocalFile = ::open(path, O_RDONLY | O_CLOEXEC);
    Trace(kTagPut, "CreateFile(0x%08X)", static_cast<unsigned>(progress->hLocalFile));
  }
  if (progress->hLocalFile < 0) {
    progress->dwError = 2;
    return E_FAIL;
  }
  ssize_t n;
  do n = ::pread(progress->hLocalFile, buffer, length, static_cast<off_t>(offset));
  while (n < 0 && errno == EINTR);
  if (n < 0) {
    progress->dwError = 1;
    return E_FAIL;
  }
  if (supplied) *supplied = static_cast<uint32_t>(n);
  if (progress->pullAlreadyUploaded) *progress->pullAlreadyUploaded = offset + static_cast<uint64_t>(n);
  Trace(kTagPut, "%d, %llu, %ld", static_cast<int>(n), static_cast<unsigned long long>(offset), static_cast<long>(length));
  return S_OK;
}

// What an upload needs of the item, taken under the drive lock: the device
// event worker may refill the record while the upload runs.
struct UploadPlan {
  std::string localPath, name, extension, parentId, waitName, oldId, cacheName, fileName;
  bool replace = false;
  DWORD attributes = 0;
  FILETIME delayedCreation, delayedWrite;
  int64_t oldSize = 0;
};

FILETIME CopyWriteTime(const std::string& path, const DirectoryItem* item) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return item->rFindData.ftLastWriteTime;
  return qb::sys::UnixToFileTime(st.st_mtim.tv_sec, 0);
}

const char* ReasonOf(HRESULT hr) {
  if (hr == kDeviceGone) return "the device is not connected";
  if (hr == kDiskFull) return "the device is full";
  if (hr == static_cast<HRESULT>(0x80070032u) || hr == E_ACCESSDENIED) return "the device refuses writes";
  return "the transfer failed";
}

NTSTATUS StatusOf(HRESULT hr) {
  if (hr == kDiskFull) return STATUS_DISK_FULL;
  if (hr == static_cast<HRESULT>(0x80070032u) || hr == E_ACCESSDENIED) return STATUS_ACCESS_DENIED;
  if (hr == kDeviceGone) return STATUS_NO_SUCH_DEVICE;
  return STATUS_UNSUCCESSFUL;
}

// The upload is over. Only a record that still carries its old id is this
// upload's own: one the device's object took over in place is refilled
// already, and a replaced file's record may serve another object by now.
// Called with the drive lock held.
void EndUploadOfOwnRecord(DirectoryItem* item, const UploadPlan& plan) {
  if (plan.oldId != item->ItemIDText()) return;
  item->bUploadPending = 0;
  if (IsProvisional(item)) {
    Trace(kTag, "DID:%s", item->ItemIDText());
    item->bDeleted = 1;
  }
}

// The upload did not happen: the content goes to the rescue folder, the
// placeholder leaves the tree.
NTSTATUS Fail(DriveState* state, DirectoryItem* item, const UploadPlan& plan, const std::string& path, HRESULT hr) {
  Trace(kTagUpload, "Upload of \"%s\" failed: 0x%08X", path.c_str(), static_cast<unsigned>(hr));
  ForgetWriteAnswer(state);  // the device may have stopped taking writes
  struct stat st {};
  const bool hasContent = ::stat(plan.localPath.c_str(), &st) == 0 && st.st_size > 0;
  const std::string rescued = hasContent ? RescueContent(state, plan.localPath, path, ReasonOf(hr)) : std::string();
  {
    CWriteLock lock(&state->rDriveLock);  // the cache's index changes (see MakePlan)
    EndUploadOfOwnRecord(item, plan);
    CCacheItem* entry = state->pCache->Find(plan.cacheName, plan.fileName);
    if (entry && (!hasContent || !rescued.empty())) state->pCache->Delete(&entry, 1);
  }
  RefreshShell(state, SHCNE_UPDATEDIR, ParentPath(path));
  RefreshShell(state, SHCNE_UPDATEITEM, path);
  return StatusOf(hr);
}

bool MakePlan(DriveState* state, DirectoryItem* item, const std::string& path, UploadPlan* plan) {
  // Written, not read: creates add to the cache's index under the read lock
  // beside this, and a lookup during an add may miss the copy.
  CWriteLock lock(&state->rDriveLock);
  CCacheItem* entry = state->pCache->Find(CacheName(item), item->rFindData.cFileName);
  if (!entry) return false;
  plan->localPath = entry->sLocalPath;
  plan->cacheName = CacheName(item);
  plan->fileName = item->rFindData.cFileName;
  plan->name = item->sOriginalItemName;
  const std::string ext(ExtensionOf(item->rFindData.cFileName));
  plan->extension = ext.empty() ? "" : ext.substr(1);
  plan->parentId = item->sParentID;
  if (plan->parentId.empty() || IsProvisional(item)) {
    const DirectoryItem* folder = FindFolder(state, ParentPath(path));
    if (!FolderDeviceId(state, folder).empty()) plan->parentId = FolderDeviceId(state, folder);
    Trace(kTagUpload, "pID=%s", plan->parentId.c_str());
  }
  plan->waitName = item->sFullPath + item->rFindData.cFileName;
  // An item with a device object is replaced: its old object goes first.
  plan->replace = !IsProvisional(item);
  plan->oldId = item->ItemIDText();
  plan->oldSize = item->rFindData.FileSize();
  plan->attributes = item->rFindData.dwFileAttributes & kDeviceAttributes;
  plan->delayedCreation = item->ftDelayedCreationTime;
  plan->delayedWrite = item->ftDelayedLastWriteTime;
  return true;
}

// Attributes and times that had to wait for the upload, applied to the
// object that now carries the path. False when there were none.
bool ApplyAfterUpload(DriveState* state, const UploadPlan& plan, const std::string& path) {
  if (!plan.attributes && !plan.delayedCreation.Value() && !plan.delayedWrite.Value()) return false;
  DOKAN_FILE_INFO info;
  {
    CReadLock lock(&state->rDriveLock);
    DirectoryItem* item = FindFile(state, path);
    if (!item || IsProvisional(item)) {
      Trace(kTagUpload, "Delayed SetFileTime failed");
      return true;
    }
    info.Context = reinterpret_cast<ULONG64>(item);
    if (plan.attributes) {
      Trace(kTagUpload, "Set file attributes(2)");
      item->rFindData.dwFileAttributes &= ~kDeviceAttributes;
    }
  }
  if (plan.attributes &&
      QuillboxSetFileAttributes(path.c_str(), plan.attributes | FILE_ATTRIBUTE_ARCHIVE, &info) != STATUS_SUCCESS)
    Trace(kTagUpload, "Set file attributes failed");
  if (plan.delayedCreation.Value() || plan.delayedWrite.Value()) {
    Trace(kTagUpload, "Delayed SetFileTime");
    if (QuillboxSetFileTime(path.c_str(), plan.delayedCreation.Value() ? &plan.delayedCreation : nullptr, nullptr,
                            plan.delayedWrite.Value() ? &plan.delayedWrite : nullptr, &info) != STATUS_SUCCESS)
      Trace(kTagUpload, "Delayed SetFileTime failed");
  }
  return true;
}

// Items marked for the lifetime of a Mark, and waits for their marks to go.
class ItemMarks {
 public:
  class Mark {
   public:
    Mark(ItemMarks& marks, const DirectoryItem* item) : marks_(marks), item_(item) {
      if (!item_) return;
      std::lock_guard hold(marks_.m_);
      marks_.items_.insert(item_);
    }
    ~Mark() {
      if (!item_) return;
      {
        std::lock_guard hold(marks_.m_);
        marks_.items_.erase(marks_.items_.find(item_));
      }
      marks_.gone_.notify_all();
    }
    Mark(const Mark&) = delete;
    Mark& operator=(const Mark&) = delete;

   private:
    ItemMarks& marks_;
    const DirectoryItem* item_;
  };

  bool Has(const DirectoryItem* item) {
    std::lock_guard hold(m_);
    return items_.count(item) != 0;
  }
  // Waits until `item` (every item: null) carries no mark, logging `what`
  // every 100 ms.
  void AwaitNone(const DirectoryItem* item, const char* tag, const char* what) {
    std::unique_lock hold(m_);
    while (!gone_.wait_for(hold, std::chrono::milliseconds(100),
                           [&] { return item ? items_.count(item) == 0 : items_.empty(); }))
      Trace(tag, "%s", what);
  }

 private:
  std::mutex m_;
  std::condition_variable gone_;
  std::multiset<const DirectoryItem*> items_;  // under m_
};

// Items whose own upload deletes their old object.
ItemMarks g_replacing;
// Items whose sent upload awaits the device's confirmation; another upload
// of the item waits for it.
ItemMarks g_confirming;

// Waits until the sent uploads of `item` (of every item: null) are
// confirmed or given up.
void WaitConfirmed(const DirectoryItem* item, const char* tag) {
  g_confirming.AwaitNone(item, tag, "Waiting for the confirmation of an upload");
}

// The end of a sent upload: the device's confirmation (or the folder's
// listing when it does not come), then the record, and what had to wait
// for the new object.
void FinishUpload(DriveState* state, DirectoryItem* item, UploadPlan plan, const std::string& path,
                  const std::shared_ptr<CSyncEvent>& wait) {
  Trace(kTag, ">>Waiting for CREATE callback to finish with '%s', 0x%08X", path.c_str(), 0u);
  const bool confirmed = AwaitConfirmation(state, wait, kConfirmLimitMs);
  if (!confirmed) RelistFolderById(state, plan.parentId);
  {
    CReadLock lock(&state->rDriveLock);
    EndUploadOfOwnRecord(item, plan);
  }
  plan.delayedWrite = FILETIME{};  // went with the upload
  const bool applied = ApplyAfterUpload(state, plan, path);
  // The confirming event refreshed the item already.
  if (!confirmed || applied) RefreshShell(state, SHCNE_UPDATEITEM, path);
}

// After the old object of a changed file is gone, its record waits for the
// new object as a file the drive created does: with a provisional id, which
// the tree refills in place when the device reports the object. Opens of
// the file keep their item through the upload. Answers the new id.
std::string BecomeProvisional(DriveState* state, DirectoryItem* item) {
  CWriteLock lock(&state->rDriveLock);
  std::string id = "DMYID" + FileFullName(item);
  CDirectory::StripColons(id);
  state->pDirectory->SetItemID(item, id.c_str());
  item->sUniqueID.clear();
  state->pDirectory->Reindex(item);
  item->bPendingDelete = 0;
  item->bDeleted = 0;
  return id;
}

// The end of an open whose item asked for its delete (unlink): other opens
// of the file keep its content.
void DeleteAtCleanup(DriveState* state, DirectoryItem* item, const std::string& path, bool provisional) {
  Trace(kTag, "  DeleteOnClose");
  if (!provisional) {
    if (item->nOpenHolds.load() > 1) {
      std::unique_lock exclusive(state->hExclusiveAccessMutex, std::defer_lock);
      while (!exclusive.try_lock_for(std::chrono::milliseconds(100))) Trace(kTag, "Waiting for exclusive access");
      FetchWholeCopy(state, item, path);
    }
    if (FAILED(DeleteOnDevice(state, item, path))) return;
  }
  {
    CWriteLock lock(&state->rDriveLock);
    if (provisional) {
      Trace(kTag, "DID:%s", item->ItemIDText());
      MarkGone(state, item);
    } else if (item->nOpenHolds.load() > 1) {
      DetachCopy(state, item);  // when the device's confirmation did not do it
    } else if (!IsDetached(item)) {
      CCacheItem* entry = state->pCache->Find(CacheName(item), item->rFindData.cFileName);
      if (entry) state->pCache->Delete(&entry, 1);
    }
  }
  RefreshShell(state, SHCNE_DELETE, path);
}

}  // namespace

namespace qb::drive {

bool IsBeingReplaced(const DirectoryItem* item) { return g_replacing.Has(item); }

std::unique_lock<std::recursive_timed_mutex> HoldUploads(DriveState* state, const char* tag, bool sentToo) {
  std::unique_lock uploads(state->hUploadMutex, std::defer_lock);
  while (!uploads.try_lock_for(std::chrono::milliseconds(100))) Trace(tag, "Waiting for the upload in progress");
  if (sentToo) WaitConfirmed(nullptr, tag);
  return uploads;
}

HRESULT DeleteOnDevice(DriveState* state, DirectoryItem* item, const std::string& path, bool replacing) {
  Trace(kTag, "  DeleteFile ");
  std::string id;
  int64_t size = 0;
  {
    CReadLock lock(&state->rDriveLock);
    id = item->ItemIDText();
    size = item->rFindData.FileSize();
    // A file whose new content replaces its object keeps its name meanwhile:
    // opens, lookups and a rename right after the close still find it.
    if (!replacing) item->bPendingDelete = 1;
  }
  ItemMarks::Mark mark(g_replacing, replacing ? item : nullptr);
  auto wait = RegisterWait(state, id);
  const HRESULT hr = state->pHelper ? state->pHelper->DeleteFile(id.c_str()) : E_FAIL;
  if (FAILED(hr)) {
    DiscardEventDone(wait);
    ForgetWriteAnswer(state);
    CReadLock lock(&state->rDriveLock);
    item->bPendingDelete = 0;
    Trace(kTag, "Cannot delete file \"%s\" from device", path.c_str());
    return hr;
  }
  Trace(kTag, ">>Waiting for DELETE callback to finish with '%s', 0x%08X", id.c_str(), 0u);
  if (!AwaitConfirmation(state, wait, kDeleteConfirmLimitMs)) RelistFolderOfPath(state, path);
  CWriteLock lock(&state->rDriveLock);
  state->pDirectory->AddSize(-size);
  return S_OK;
}

NTSTATUS UploadPending(DriveState* state, DirectoryItem* item, const std::string& path,
                       std::function<void()>* rest) {
  auto uploads = HoldUploads(state, kTagUpload, !rest);
  WaitConfirmed(item, kTagUpload);  // an earlier upload of this file is confirmed first
  {
    CReadLock lock(&state->rDriveLock);
    if (!item->bUploadPending) return STATUS_SUCCESS;  // sent while this one waited
  }
  UploadPlan plan;
  if (!MakePlan(state, item, path, &plan)) {
    Trace(kTagUpload, "No cache copy of \"%s\"", path.c_str());
    item->bUploadPending = 0;
    return STATUS_SUCCESS;
  }
  const bool refused = TakeRefusedWrite(item);
  if (refused) return Fail(state, item, plan, path, kDiskFull);
  struct stat st {};
  if (::stat(plan.localPath.c_str(), &st) != 0) return Fail(state, item, plan, path, E_FAIL);
  const uint64_t size = static_cast<uint64_t>(st.st_size);
  // Checked before the old object goes, so that a file that cannot fit
  // leaves the device as it was.
  const uint64_t freed = plan.replace ? static_cast<uint64_t>(plan.oldSize) : 0;
  if (!FitsFreeSpace(state, size > freed ? size - freed : 0)) return Fail(state, item, plan, path, kDiskFull);
  if (plan.replace) {
    const HRESULT hr = DeleteOnDevice(state, item, path, true);
    if (FAILED(hr)) return Fail(state, item, plan, path, hr);
    plan.oldId = BecomeProvisional(state, item);
  }
  FILETIME written = plan.delayedWrite.Value() ? plan.delayedWrite : CopyWriteTime(plan.localPath, item);
  {
    CReadLock lock(&state->rDriveLock);
    item->rFindData.SetFileSize(static_cast<int64_t>(size));
  }
  auto wait = RegisterWait(state, plan.waitName);
  UploadProgress progress;
  progress.ullFileSize = size;
  Trace(kTagUpload, "PutFile \"%s\" (%llu bytes)", path.c_str(), static_cast<unsigned long long>(size));
  HRESULT hr = state->pHelper->PutFile(plan.name.c_str(), plan.extension.empty() ? nullptr : plan.extension.c_str(),
                                       plan.localPath.c_str(),
                                       plan.parentId.c_str(), size, &written, &PutFileDataCallback, &progress);
  if (progress.hLocalFile >= 0) ::close(progress.hLocalFile);
  if (SUCCEEDED(hr) && progress.dwError) hr = E_FAIL;
  if (FAILED(hr)) {
    DiscardEventDone(wait);
    return Fail(state, item, plan, path, hr);
  }
  // The device holds the bytes now: the next upload's free-space check
  // counts them, also while this one waits for its confirmation.
  NoteUploadedBytes(state, static_cast<int64_t>(size) - static_cast<int64_t>(freed));
  if (!rest) {
    FinishUpload(state, item, std::move(plan), path, wait);
    return STATUS_SUCCESS;
  }
  auto confirming = std::make_shared<ItemMarks::Mark>(g_confirming, item);
  *rest = [state, item, plan = std::move(plan), path, wait, confirming] {
    FinishUpload(state, item, plan, path, wait);
  };
  return STATUS_SUCCESS;
}

}  // namespace qb::drive

void QuillboxCleanup(LPCWSTR FileName, PDOKAN_FILE_INFO DokanFileInfo) {
  const std::string name(FileName ? FileName : "");
  Trace(kTag, "FileName=\"%s\"", name.c_str());
  DriveState* state = GetDriveState();
  if (!state || HasWildcard(name)) return;
  DirectoryItem* item = ContextItem(DokanFileInfo);
  if (!item) {
    Trace(kTag, "Cleanup: \"%s\" - invalid handle", name.c_str());
    return;
  }
  // The open keeps its item (the context) until CloseFile: a file whose
  // name went stays readable for the opens that still run.
  Trace(kTag, "Cleanup: 0x%08X", static_cast<unsigned>(reinterpret_cast<uintptr_t>(item)));
  if (DokanFileInfo->IsDirectory || item->bPersistent) return;
  bool deleteOnClose, uploadPending, provisional;
  std::string path;
  {
    CReadLock lock(&state->rDriveLock);
    deleteOnClose = item->bFileFlagDeleteOnClose && item->IsLive();
    uploadPending = item->bUploadPending;
    provisional = IsProvisional(item);
    path = FileFullName(item);
  }
  if (IsDetached(item)) {
    // Written after its name went: like an unlinked file's data, it goes
    // with the last close and never reaches the device as a new file.
    if (uploadPending) Trace(kTag, "Content of removed \"%s\" not uploaded", path.c_str());
    CReadLock lock(&state->rDriveLock);
    item->bUploadPending = 0;
    return;
  }
  if (deleteOnClose && !uploadPending) return DeleteAtCleanup(state, item, path, provisional);
  if (!IsOriginalStructure(state)) return;
  if (!uploadPending) return;
  // The device's confirmation may come while the drive layer cleans up the
  // next file.
  std::function<void()> rest;
  UploadPending(state, item, path, &rest);
  if (rest && !qb::dokan::DeferRestOfEnd(rest)) rest();
}
