// The read path: QuillboxReadFile, its guard and the check of an existing
// cache copy.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>

#include "common/strings.h"
#include "diag/trace.h"
#include "drive/write_side.h"
#include "platform/system/clock.h"

using namespace qb::drive;

namespace {

constexpr const char* kTag = "M14@QuillboxReadFile: ";
constexpr HRESULT RPC_E_STORE_NOT_AVAIL = static_cast<HRESULT>(0x80042013u);
constexpr int kStoreNotAvailText = -36;

// A temporary file in the user's temporary folder, remembered for removal.
std::string MakeTempCopy(DriveState* state) {
  std::string pattern = (std::filesystem::temp_directory_path() / "qbxXXXXXX").string();
  const int fd = mkstemp(pattern.data());
  if (fd < 0) return "";
  ::close(fd);
  std::lock_guard hold(state->hTempFilesMutex);
  state->TempFiles.push_back(pattern);
  return pattern;
}

// The empty copy of a zero-byte file, with the device file's creation time.
void CreateEmptyCopy(const std::string& path, const DirectoryItem* item) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return;
  ::close(fd);
  SetCopyCreationTime(path, item->rFindData.ftCreationTime);
}

NTSTATUS ReadFromCopy(const std::string& path, void* buffer, DWORD length, DWORD* readLength,
                      int64_t offset) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    Trace(kTag, "CreateFile error : %d", errno);
    return TraceStatus(kTag, STATUS_UNSUCCESSFUL, 11);
  }
  DWORD done = 0;
  while (done < length) {
    const ssize_t n = ::pread(fd, static_cast<char*>(buffer) + done, length - done, offset + done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      Trace(kTag, "error = %u, %d, %d", static_cast<unsigned>(errno), static_cast<int>(length),
            static_cast<int>(done));
      ::close(fd);
      return TraceStatus(kTag, STATUS_UNSUCCESSFUL, 13);
    }
    if (n == 0) break;
    done += static_cast<DWORD>(n);
  }
  ::close(fd);
  if (readLength) *readLength = done;
  Trace(kTag, "[3] %d, %llu", static_cast<int>(done), static_cast<unsigned long long>(offset));
  return TraceStatus(kTag, STATUS_SUCCESS, 14);
}

// Queues one download of the whole file (step 9). Called with the drive lock
// held for reading and the exclusive-access mutex held.
bool QueueDownload(DriveState* state, DirectoryItem* item, const std::string& localPath, uint64_t size) {
  if (!item->hRegionsToDownloadMutex) item->hRegionsToDownloadMutex = std::make_unique<std::timed_mutex>();
  {
    std::lock_guard regions(*item->hRegionsToDownloadMutex);
    item->bDownloading = 1;
    item->ullAlreadyDownloaded = 0;
  }
  auto record = std::make_unique<DownloadQueueItem>();
  record->sObjectName = item->sOriginalDeviceName;
  record->sLocalPath = localPath;
  const std::string ext(ExtensionOf(item->rFindData.cFileName));
  record->sExtension = ext.empty() ? "" : ext.substr(1);
  record->pItem = item;
  record->ullFileSize = size;
  record->ftCreation = item->rFindData.ftCreationTime;
  Trace(kTag, "WAIT 3745 (0x%08X)", 0u);
  std::lock_guard queue(state->hDownloadQueueMutex);
  Trace(kTag, "GOT 3748  (0x%08X)", 0u);
  Trace(kTag, "Add(%s.%s)", item->sOriginalDeviceName.c_str(), ext.empty() ? "<NULL>" : ext.c_str() + 1);
  state->DownloadQueue.Add(std::move(record));
  Trace(kTag, "RELEASE_SEMAPHORE 3753 (0x%08X)", 0u);
  if (!state->hDownloadQueueSemaphore.Release()) {
    state->DownloadQueue.Delete(state->DownloadQueue.Count() - 1);
    std::lock_guard regions(*item->hRegionsToDownloadMutex);
    item->bDownloading = 0;
    return false;
  }
  Trace(kTag, "RELEASE_MUTEX 3756 (0x%08X)", 0u);
  return true;
}

// Steps 10 and 11: waits until the download has reached `end`. Answers 0
// when the bytes are there, else the download's status.
uint32_t WaitForRegion(DriveState* state, DirectoryItem* item, uint64_t end) {
  auto region = std::make_unique<DownloadRegion>();
  region->ullEnd = end;
  DownloadRegion* waiting = nullptr;
  Trace(kTag, "WAIT 3777 (0x%08X)", 0u);
  {
    std::lock_guard regions(*item->hRegionsToDownloadMutex);
    Trace(kTag, "GOT 3780 (0x%08X)", 0u);
    if (item->bDownloading && item->ullAlreadyDownloaded < end) {
      Trace(kTag, "CREATE_EVENT 3788 (0x%08X)", 0u);
      waiting = region.get();
      if (!item->pRegionsToDownload) item->pRegionsToDownload = std::make_unique<DownloadRegionList>();
      item->pRegionsToDownload->Add(std::move(region));
    } else if (!item->bDownloading && item->ullAlreadyDownloaded < end) {
      return item->dwError ? item->dwError : 1;  // the download ended short
    }
    Trace(kTag, "RELEASE_MUTEX 3797 (0x%08X)", 0u);
  }
  if (!waiting) return 0;
  // The region is owned by the list until whoever signals it takes it out;
  // the done event is its last use, so the waiter keeps it alive through
  // the taken-out copy handed back by the signaller (see download.cpp).
  Trace(kTag, "WAIT 3802 (0x%08X)", 0u);
  while (!waiting->hDone.WaitFor(std::chrono::milliseconds(100))) {
    if (state->hDownloadQueueSemaphore.Stopped()) return 1;
  }
  Trace(kTag, "GOT 3816 (0x%08X)", 0u);
  Trace(kTag, "CLOSE_HANDLE 3819 (0x%08X)", 0u);
  const uint32_t status = waiting->dwStatus;
  delete waiting;  // taken out of the list by the signaller, freed by the reader
  return status;
}

// Whether the download that ran when the copy was checked has completed
// since: the transfer marks the copy complete only with its last chunk, so
// a check made just before saw an incomplete copy, and a second download
// would empty the copy that readers are about to read.
bool CompletedMeanwhile(DirectoryItem* item, const CCacheItem* entry, uint64_t size) {
  if (!entry || !item->hRegionsToDownloadMutex) return false;
  std::lock_guard regions(*item->hRegionsToDownloadMutex);
  return !item->bDownloading && item->ullAlreadyDownloaded >= size && CCacheItem::Validate(entry, item->rFindData);
}

// A file whose name went while open: its kept copy holds everything there
// is; the device has nothing more of it.
NTSTATUS ReadKeptCopy(const DirectoryItem* item, void* buffer, DWORD length, DWORD* readLength, int64_t offset) {
  const std::string copy = DetachedCopyOf(item);
  if (copy.empty()) {
    if (readLength) *readLength = 0;
    return TraceStatus(kTag, item->rFindData.FileSize() == 0 ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL, 20);
  }
  return ReadFromCopy(copy, buffer, length, readLength, offset);
}

}  // namespace

namespace qb::drive {

NTSTATUS FetchWholeCopy(DriveState* state, DirectoryItem* item, const std::string& path) {
  int64_t size = 0;
  {
    CReadLock lock(&state->rDriveLock);
    size = item->rFindData.FileSize();
    if (IsProvisional(item) || item->bUploadPending || size == 0 || IsDetached(item)) return STATUS_SUCCESS;
  }
  char byte = 0;
  DWORD read = 0;
  DOKAN_FILE_INFO info{};
  info.Context = reinterpret_cast<ULONG64>(item);
  const NTSTATUS status = QuillboxReadFile(path.c_str(), &byte, 1, &read, size - 1, &info);
  if (status != STATUS_SUCCESS) Trace(kTag, "Cannot fetch the device's content of \"%s\"", path.c_str());
  return status;
}

int ValidateExistingCacheEntry(DriveState* state, CCacheItem** entry, DirectoryItem* item) {
  if (!entry || !*entry || !item) return 0;
  const int valid = CCacheItem::Validate(*entry, item->rFindData);
  if (valid) return valid;
  if (item->bDownloading) return 0;
  if (item->bUploadPending) {
    Trace("M141@ValidateExistingCacheEntry: ", "Pending file upload");
    return 1;
  }
  state->pCache->Delete(entry, 1);
  *entry = state->pCache->Add(CacheName(item), &item->rFindData);
  item->bDownloading = 0;
  item->ullAlreadyDownloaded = 0;
  return 0;
}

}  // namespace qb::drive

NTSTATUS QuillboxReadFile(LPCWSTR FileName, LPVOID Buffer, DWORD BufferLength, LPDWORD ReadLength,
                          LONGLONG Offset, PDOKAN_FILE_INFO DokanFileInfo) {
  const std::string path(FileName ? FileName : "");
  Trace(kTag, "\"%s\", %lld, %ld", path.c_str(), static_cast<long long>(Offset), static_cast<long>(BufferLength));
  if (ReadLength) *ReadLength = 0;
  DriveState* state = GetDriveState();
  if (!state || !state->pDirectory || !state->pCache) return TraceStatus(kTag, STATUS_UNSUCCESSFUL, 1);
  CReadLock lock(&state->rDriveLock);
  // An open reads its own object (the context), whatever the path names now.
  DirectoryItem* item = ContextItem(DokanFileInfo);
  if (!item) item = FindFile(state, path);
  if (!item) {
    Trace(kTag, "File not found: \"%s\"", path.c_str());
    return TraceStatus(kTag, STATUS_UNSUCCESSFUL, 1);
  }
  const uint64_t size = static_cast<uint64_t>(item->rFindData.FileSize());
  const uint64_t offset = static_cast<uint64_t>(Offset);
  if (Offset < 0 || offset > size) {
    Trace(kTag, "Seek error, offset = %d", static_cast<int>(Offset));
    return TraceStatus(kTag, STATUS_UNSUCCESSFUL, 2);
  }
  if (IsDetached(item)) return ReadKeptCopy(item, Buffer, BufferLength, ReadLength, Offset);
  int valid = 0;
  CCacheItem* entry = state->pCache->Find(CacheName(item), item->rFindData.cFileName);
  if (entry) valid = ValidateExistingCacheEntry(state, &entry, item);
  else entry = state->pCache->Add(CacheName(item), &item->rFindData);
  if (!entry) {
    Trace(kTag, "Error creating an item in cache");
    return TraceStatus(kTag, STATUS_UNSUCCESSFUL, 3);
  }
  std::string localPath = entry->sLocalPath;
  if (!valid && !CCache::CreateParentFolders(entry)) {
    state->pCache->Delete(&entry, 0);
    localPath = MakeTempCopy(state);
    if (localPath.empty()) {
      Trace(kTag, "Cannot create file in local cache");
      return TraceStatus(kTag, STATUS_UNSUCCESSFUL, 4);
    }
  }
  Trace(kTag, "[1] %llu, %ld", static_cast<unsigned long long>(offset), static_cast<long>(BufferLength));
  if (!valid || item->bDownloading) {
    if (item->dwError) {
      Trace(kTag, "Error downloading file \"%s\" from device, error %d", path.c_str(), static_cast<int>(item->dwError));
      return TraceStatus(kTag, ToNtStatus(item->dwError), 18);
    }
    const uint64_t end = std::min(offset + BufferLength, size);
    if (item->ullAlreadyDownloaded >= end && (item->bDownloading || end == 0)) {
      if (offset == 0 && size == 0) {
        Trace(kTag, "File \"%s\" has size 0 bytes", path.c_str());
        CreateEmptyCopy(localPath, item);
      }
    } else if (CompletedMeanwhile(item, entry, size)) {
      Trace(kTag, "Download completed meanwhile");
    } else {
      Trace(kTag, "rfs = %llu", static_cast<unsigned long long>(size));
      if (!item->bDownloading) {
        Trace(kTag, "[2] 0, %lld, %ld", static_cast<long long>(Offset), static_cast<long>(BufferLength));
        if (!QueueDownload(state, item, localPath, size)) return TraceStatus(kTag, STATUS_UNSUCCESSFUL, 5);
      }
      const uint32_t status = WaitForRegion(state, item, end);
      if (status != 0) {
        Trace(kTag, "Error downloading file \"%s\" from device, error %d", path.c_str(), static_cast<int>(status));
        if (static_cast<HRESULT>(status) == RPC_E_STORE_NOT_AVAIL && !state->bStoreNotAvailShown.exchange(1) &&
            state->hooks.fnShowError)
          state->hooks.fnShowError(kStoreNotAvailText);
        if (!item->dwError) item->dwError = 1;
        return TraceStatus(kTag, ToNtStatus(1), 16);
      }
    }
  }
  return ReadFromCopy(localPath, Buffer, BufferLength, ReadLength, Offset);
}

NTSTATUS Guard_QuillboxReadFile(LPCWSTR FileName, LPVOID Buffer, DWORD BufferLength,
                                LPDWORD ReadLength, LONGLONG Offset, PDOKAN_FILE_INFO DokanFileInfo) {
  DriveState* state = GetDriveState();
  if (!state) return STATUS_INTERNAL_ERROR;
  std::unique_lock exclusive(state->hExclusiveAccessMutex, std::defer_lock);
  while (!exclusive.try_lock_for(std::chrono::milliseconds(100)))
    Trace("M14G@Guard_QuillboxReadFile: ", "Waiting for exclusive access");
  return QuillboxReadFile(FileName, Buffer, BufferLength, ReadLength, Offset, DokanFileInfo);
}
