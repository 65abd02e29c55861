// The download worker: one transfer at a time, in queue order, written into
// the cache copy chunk by chunk; every waiting read is woken by the chunk
// that reaches the end of its region.
#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "diag/trace.h"
#include "drive/drive_internal.h"

using namespace qb::drive;

namespace {

constexpr const char* kCallbackTag = "M30@GetFileDataCallback: ";

DWORD Win32OfErrno(int err) {
  switch (err) {
    case ENOSPC: case EDQUOT: return 112;
    case ENOENT: return 2;
    case EACCES: case EPERM: return 5;
    default: return 1;
  }
}

// Wakes the regions whose end the download has reached (all with `all`),
// with the status. Called with the region mutex held.
void WakeRegions(DirectoryItem* item, bool all, uint32_t status) {
  DownloadRegionList* list = item->pRegionsToDownload.get();
  if (!list) return;
  Trace(kCallbackTag, "670:nC=%d", static_cast<int>(list->Count()));
  for (uint32_t i = 0; i < list->Count();) {
    auto* region = static_cast<DownloadRegion*>(list->Get(i));
    Trace(kCallbackTag, "676:%llu-%llu", static_cast<unsigned long long>(region->ullEnd),
          static_cast<unsigned long long>(item->ullAlreadyDownloaded));
    if (all || region->ullEnd <= item->ullAlreadyDownloaded) {
      Trace(kCallbackTag, "SET_EVENT 679 (0x%08X)", 0u);
      // Balanced by the delete in the waiting read, which owns it from here.
      auto* taken = static_cast<DownloadRegion*>(list->Take(i).release());
      taken->dwStatus = status;
      taken->hDone.Set();
    } else {
      ++i;
    }
  }
}

bool DriveStopping(const DriveState* state) { return state->hDownloadQueueSemaphore.Stopped(); }

// The end of a transfer: wakes what is left, closes and (after a failure)
// deletes the partial copy.
HRESULT Finish(DownloadQueueItem* current, HRESULT result) {
  DirectoryItem* item = current->pItem;
  if (item->hRegionsToDownloadMutex) {
    Trace(kCallbackTag, "WAIT 742 (0x%08X)", 0u);
    std::lock_guard regions(*item->hRegionsToDownloadMutex);
    Trace(kCallbackTag, "GOT 745 (0x%08X)", 0u);
    WakeRegions(item, true, current->dwError);
    item->bDownloading = 0;
    Trace(kCallbackTag, "RELEASE_MUTEX 768 (0x%08X)", 0u);
  }
  if (current->hLocalFile >= 0) {
    ::close(current->hLocalFile);
    current->hLocalFile = -1;
  }
  if (FAILED(result)) ::unlink(current->sLocalPath.c_str());
  Trace(kCallbackTag, "%d, %llu", static_cast<int>(item->bDownloading),
        static_cast<unsigned long long>(item->ullAlreadyDownloaded));
  return result;
}

// The first chunk: checks the free space of the cache folder and creates the copy.
void OpenCopy(DownloadQueueItem* current) {
  const std::string& path = current->sLocalPath;
  const size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash);
  struct statvfs vfs;
  if (statvfs(folder.c_str(), &vfs) == 0 &&
      uint64_t{vfs.f_bavail} * vfs.f_frsize < current->ullFileSize) {
    Trace(kCallbackTag, "Not enough space in directory '%s' to store temporary file '%s'",
          folder.c_str(), path.c_str() + slash + 1);
    current->dwError = 112;
    return;
  }
  current->hLocalFile = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (current->hLocalFile < 0) {
    current->dwError = Win32OfErrno(errno);
    Trace(kCallbackTag, "CreateFile error %d", static_cast<int>(current->dwError));
  } else {
    Trace(kCallbackTag, "CreateFile(0x%08X)", static_cast<unsigned>(current->hLocalFile));
  }
}

bool WriteChunk(DownloadQueueItem* current, const uint8_t* data, uint32_t length, uint64_t offset) {
  uint32_t done = 0;
  while (done < length) {
    const ssize_t n = ::pwrite(current->hLocalFile, data + done, length - done,
                               static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      current->dwError = Win32OfErrno(n < 0 ? errno : ENOSPC);
      Trace(kCallbackTag, "Write failed, error=%d", static_cast<int>(current->dwError));
      return false;
    }
    done += static_cast<uint32_t>(n);
  }
  return true;
}

HRESULT ProcessCurrentDownloadQueueItem(DriveState* state, DownloadQueueItem* current) {
  static const char* tag = "M31@ProcessCurrentDownloadQueueItem: ";
  DirectoryItem* item = current->pItem;
  Trace(tag, "DS: %d, %llu", static_cast<int>(item->bDownloading),
        static_cast<unsigned long long>(item->ullAlreadyDownloaded));
  const HRESULT hr = state->pHelper ? state->pHelper->GetFile(current->sObjectName.c_str(),
                                                              current->sLocalPath.c_str(),
                                                              &GetFileDataCallback, current)
                                    : E_FAIL;
  if (DriveStopping(state)) return hr;  // the tree may be going away: touch nothing
  Trace(tag, "DF: %d, %llu", static_cast<int>(item->bDownloading),
        static_cast<unsigned long long>(item->ullAlreadyDownloaded));
  if (hr != S_OK) {
    Trace(tag, "Cannot retrieve file \"%s\" from device", current->sObjectName.c_str());
    CleanupAfterError(current, hr);
  }
  return hr;
}

void DownloadWorkerFn(DriveState* state, std::shared_ptr<CThreadHandle> handle) {
  static const char* tag = "M32@DownloadWorkerFn: ";
  DownloadQueueItem current;
  for (;;) {
    Trace(tag, "WAIT 5537 (0x%08X || 0x%08X)", 0u, 0u);
    const auto wait = state->hDownloadQueueSemaphore.WaitFor(std::chrono::hours(24));
    if (wait == CSyncSemaphore::Wait::Stop) {
      Trace(tag, "GOT 5545 (0x%08X)", 0u);
      break;
    }
    if (wait != CSyncSemaphore::Wait::Count) continue;
    Trace(tag, "GOT 5550 (0x%08X)", 0u);
    std::unique_ptr<DownloadQueueItem> taken;
    {
      std::lock_guard queue(state->hDownloadQueueMutex);
      Trace(tag, "GOT 5564 (0x%08X)", 0u);
      taken = state->DownloadQueue.Take(0);
      Trace(tag, "RELEASE_MUTEX 5597 (0x%08X)", 0u);
    }
    if (!taken) continue;
    current = std::move(*taken);
    current.hLocalFile = -1;
    current.dwError = 0;
    ProcessCurrentDownloadQueueItem(state, &current);
    if (DriveStopping(state)) break;
  }
  handle->SetEnded(kDownloadWorkerExitCode);
}

}  // namespace

namespace qb::drive {

HRESULT GetFileDataCallback(void* context, const uint8_t* data, uint32_t length, uint64_t offset,
                            const char* localPath, uint32_t* written) {
  auto* current = static_cast<DownloadQueueItem*>(context);
  DriveState* state = GetDriveState();
  if (!state || DriveStopping(state)) return E_FAIL;  // unmounting: end the transfer
  DirectoryItem* item = current->pItem;
  Trace(kCallbackTag, "%ld, %lld", static_cast<long>(length), static_cast<long long>(offset));
  if (!localPath && !data) {
    Trace(kCallbackTag, "Done");
    return Finish(current, S_OK);
  }
  if (!data) return S_OK;
  if (offset == 0) OpenCopy(current);
  if (current->hLocalFile < 0) {
    if (!current->dwError) current->dwError = 1;
    Trace(kCallbackTag, "Cannot open file \"%s\", error=%d", current->sLocalPath.c_str(),
          static_cast<int>(current->dwError));
    return Finish(current, E_FAIL);
  }
  if (!WriteChunk(current, data, length, offset)) return Finish(current, E_FAIL);
  if (written) *written = length;
  bool complete = false;
  {
    Trace(kCallbackTag, "WAIT 662 (0x%08X)", 0u);
    std::lock_guard regions(*item->hRegionsToDownloadMutex);
    Trace(kCallbackTag, "GOT 665 (0x%08X)", 0u);
    item->ullAlreadyDownloaded = offset + length;
    complete = item->ullAlreadyDownloaded >= current->ullFileSize;
    if (complete) {
      // The copy is complete before any reader hears of it.
      Trace(kCallbackTag, "CLOSE_FILE (0x%08X)", static_cast<unsigned>(current->hLocalFile));
      ::close(current->hLocalFile);
      current->hLocalFile = -1;
      SetCopyCreationTime(current->sLocalPath, current->ftCreation);
      item->bDownloading = 0;
    }
    WakeRegions(item, complete, 0);
    Trace(kCallbackTag, "RELEASE_MUTEX 708 (0x%08X)", 0u);
  }
  return S_OK;
}

void CleanupAfterError(DownloadQueueItem* current, HRESULT hr) {
  static const char* tag = "M33@CleanupAfterError: ";
  DirectoryItem* item = current->pItem;
  if (!item->hRegionsToDownloadMutex) return;
  Trace(tag, "WAIT 537 (0x%08X)", 0u);
  std::lock_guard regions(*item->hRegionsToDownloadMutex);
  Trace(tag, "GOT 540 (0x%08X)", 0u);
  const uint32_t status = current->dwError ? current->dwError : hr ? static_cast<uint32_t>(hr) : 1;
  WakeRegions(item, true, status);
  item->bDownloading = 0;
  item->ullAlreadyDownloaded = 0;
  if (current->hLocalFile >= 0) {
    ::close(current->hLocalFile);
    current->hLocalFile = -1;
  }
  ::unlink(current->sLocalPath.c_str());
}

}  // namespace qb::drive

bool CreateDownloadWorker(DriveState* state) {
  if (!state) return false;
  auto handle = std::make_shared<CThreadHandle>();
  try {
    std::thread(DownloadWorkerFn, state, handle).detach();
  } catch (const std::system_error&) {
    return false;
  }
  state->hDownloadThread = handle;
  return true;
}
