// Writes, end of file, allocation size, flush, attributes and times. Data
// goes only into the cache copy; the cleanup (or a flush) brings it to the
// device.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <functional>

#include "common/strings.h"
#include "diag/trace.h"
#include "drive/write_side.h"
#include "platform/dokan/dokan_linux.h"

using namespace qb::drive;

namespace {

constexpr const char* kTagWrite = "M30@QuillboxWriteFile: ";
constexpr const char* kTagEof = "M31@QuillboxSetEndOfFile: ";
constexpr const char* kTagAlloc = "M32@QuillboxSetAllocationSize: ";
constexpr const char* kTagFlush = "M33@QuillboxFlushFileBuffers: ";
constexpr const char* kTagAttr = "M34@QuillboxSetFileAttributes: ";
constexpr const char* kTagTime = "M35@QuillboxSetFileTime: ";
constexpr DWORD kDeviceAttributes = FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM;
// A write request's bytes go into the cache copy in pieces of this size. A
// single 1 MiB write makes the kernel put the file's pages in large blocks
// of memory; once memory is fragmented, getting each such block waits for
// the kernel to compact memory, and a 256 MiB copy into the drive took
// 1.0-1.6 s instead of 0.2 s (the device's own writes, in 256 KiB pieces,
// were not slowed).
constexpr size_t kCacheWritePiece = 256 * 1024;

DWORD Win32Error(int err) {
  switch (err) {
    case ENOENT: return 2;
    case EACCES: case EPERM: return 5;
    case ENOSPC: return 112;
    default: return 1;
  }
}

// A change of content. The old device object of a file that has one goes
// right before the upload (the item's delete-on-close flag stays the
// program's own: a failed upload must never turn into a plain delete).
void MarkChanged(DirectoryItem* item, int64_t size) {
  if (!IsProvisional(item) && !item->bUploadPending) Trace(kTagWrite, "Delete before upload");
  item->bUploadPending = 1;
  item->rFindData.SetFileSize(size);
}

int64_t LocalSize(int fd) {
  struct stat st {};
  return ::fstat(fd, &st) == 0 ? st.st_size : 0;
}

// The copy of the open's item, or "" ("HWF=NULL").
std::string CopyPath(DriveState* state, DirectoryItem* item, const char* tag) {
  if (IsDetached(item)) {
    std::string kept = DetachedCopyOf(item);
    if (kept.empty()) Trace(tag, "HWF=NULL");
    return kept;
  }
  CCacheItem* entry = state->pCache->Find(CacheName(item), item->rFindData.cFileName);
  if (!entry) {
    Trace(tag, "HWF=NULL");
    return {};
  }
  return entry->sLocalPath;
}

}  // namespace

NTSTATUS QuillboxWriteFile(LPCWSTR FileName, LPCVOID Buffer, DWORD Length, LPDWORD Written, LONGLONG Offset,
                           PDOKAN_FILE_INFO DokanFileInfo) {
  const std::string path(FileName ? FileName : "");
  Trace(kTagWrite, "\"%s\", %lld, %ld", path.c_str(), static_cast<long long>(Offset), static_cast<long>(Length));
  if (Written) *Written = 0;
  DriveState* state = GetDriveState();
  if (!state || !state->pDirectory || !state->pCache) return TraceStatus(kTagWrite, STATUS_UNSUCCESSFUL, 4);
  if (!IsOriginalStructure(state)) return TraceStatus(kTagWrite, STATUS_ACCESS_DENIED, 1);
  if (state->llFreeBytes < 0) RefreshDriveFreeSpace();
  DirectoryItem* item = ContextItem(DokanFileInfo);
  // The first change of a file that exists on the device starts from its
  // whole content: an append or a partial overwrite must not upload a copy
  // that holds only the new bytes.
  if (item && FetchWholeCopy(state, item, path) != STATUS_SUCCESS)
    return TraceStatus(kTagWrite, STATUS_UNSUCCESSFUL, 10);
  CReadLock lock(&state->rDriveLock);
  if (item) {
    // An open writes its own object (the context), whatever the path names now.
    const DirectoryItem* parent = FindFolder(state, ParentPath(FileFullName(item)));
    if (parent && FolderDeviceId(state, parent).empty()) return TraceStatus(kTagWrite, STATUS_ACCESS_DENIED, 3);
  } else {
    item = FindFile(state, path);
  }
  if (!item) {
    Trace(kTagWrite, "File not found: \"%s\"", path.c_str());
    return TraceStatus(kTagWrite, STATUS_UNSUCCESSFUL, 4);
  }
  if (!WriteAllowed(state)) return TraceStatus(kTagWrite, STATUS_ACCESS_DENIED, 5);
  const std::string local = CopyPath(state, item, kTagWrite);
  if (local.empty()) return TraceStatus(kTagWrite, ToNtStatus(1), 9);
  const int fd = ::open(local.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) {
    Trace(kTagWrite, "HWF=0x%08X", static_cast<unsigned>(fd));
    return TraceStatus(kTagWrite, ToNtStatus(1), 9);
  }
  const uint64_t start = DokanFileInfo && DokanFileInfo->WriteToEndOfFile ? static_cast<uint64_t>(LocalSize(fd))
                                                                           : static_cast<uint64_t>(Offset);
  Trace(kTagWrite, "%llu [%lld]", static_cast<unsigned long long>(start + Length),
        static_cast<long long>(state->llFreeBytes.load()));
  if (!FitsFreeSpace(state, start + Length)) {
    Trace(kTagWrite, "Device full");
    NoteRefusedWrite(item);
    ::close(fd);
    return TraceStatus(kTagWrite, STATUS_DISK_FULL, 6);
  }
  DWORD done = 0;
  while (done < Length) {
    const size_t piece = std::min<size_t>(Length - done, kCacheWritePiece);
    const ssize_t n = ::pwrite(fd, static_cast<const char*>(Buffer) + done, piece, static_cast<off_t>(start + done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<DWORD>(n);
  }
  DWORD result = 0;
  if (done < Length) {
    result = Win32Error(errno);
    Trace(kTagWrite, "Write error = %u, buffer length = %d, write length = %d", static_cast<unsigned>(result),
          static_cast<int>(Length), static_cast<int>(done));
  } else {
    Trace(kTagWrite, "%d, %llu", static_cast<int>(done), static_cast<unsigned long long>(start));
    MarkChanged(item, LocalSize(fd));
    item->ftDelayedCreationTime = FILETIME{};
    item->ftDelayedLastWriteTime = FILETIME{};
    if (Written) *Written = done;
  }
  ::close(fd);
  return TraceStatus(kTagWrite, ToNtStatus(result), 9);
}

NTSTATUS Guard_QuillboxWriteFile(LPCWSTR FileName, LPCVOID Buffer, DWORD Length, LPDWORD Written,
                                 LONGLONG Offset, PDOKAN_FILE_INFO DokanFileInfo) {
  DriveState* state = GetDriveState();
  if (!state) return STATUS_INTERNAL_ERROR;
  std::unique_lock exclusive(state->hExclusiveAccessMutex, std::defer_lock);
  while (!exclusive.try_lock_for(std::chrono::milliseconds(100)))
    Trace("M30G@Guard_QuillboxWriteFile: ", "Waiting for exclusive access");
  return QuillboxWriteFile(FileName, Buffer, Length, Written, Offset, DokanFileInfo);
}

// SetEndOfFile and SetAllocationSize: cut (or, for the end of file, extend)
// the copy.
static NTSTATUS ResizeCopy(LPCWSTR FileName, LONGLONG size, PDOKAN_FILE_INFO info, const char* tag, bool onlyShrink) {
  DriveState* state = GetDriveState();
  if (!state || !state->pCache) return TraceStatus(tag, STATUS_UNSUCCESSFUL, 1);
  if (!IsOriginalStructure(state)) return TraceStatus(tag, STATUS_ACCESS_DENIED, 111);
  DirectoryItem* item = ContextItem(info);
  if (!item) return TraceStatus(tag, STATUS_UNSUCCESSFUL, 1);
  if (!WriteAllowed(state)) return TraceStatus(tag, STATUS_ACCESS_DENIED, 7);
  if (size > 0 && FetchWholeCopy(state, item, FileName ? FileName : "") != STATUS_SUCCESS)
    return TraceStatus(tag, STATUS_UNSUCCESSFUL, 8);
  CReadLock lock(&state->rDriveLock);
  const std::string local = CopyPath(state, item, tag);
  if (local.empty()) return TraceStatus(tag, STATUS_UNSUCCESSFUL, 5);
  const int fd = ::open(local.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) return TraceStatus(tag, ToNtStatus(Win32Error(errno)), 4);
  const int64_t current = LocalSize(fd);
  if ((!onlyShrink || size < current) && ::ftruncate(fd, size) != 0) {
    Trace(tag, "Error code = %d", errno);
    ::close(fd);
    return TraceStatus(tag, ToNtStatus(Win32Error(errno)), 3);
  }
  MarkChanged(item, LocalSize(fd));
  ::close(fd);
  return TraceStatus(tag, STATUS_SUCCESS, 5);
}

NTSTATUS QuillboxSetEndOfFile(LPCWSTR FileName, LONGLONG ByteOffset, PDOKAN_FILE_INFO DokanFileInfo) {
  return ResizeCopy(FileName, ByteOffset, DokanFileInfo, kTagEof, false);
}

NTSTATUS QuillboxSetAllocationSize(LPCWSTR FileName, LONGLONG AllocSize, PDOKAN_FILE_INFO DokanFileInfo) {
  return ResizeCopy(FileName, AllocSize, DokanFileInfo, kTagAlloc, true);
}

// fsync: the pending content goes to the device now, so that the program
// learns whether it arrived. The close(2) of a descriptor that wrote: the
// upload is queued now and runs while the program goes on (the drive
// layer's closing thread), as at the end of an open; a failure is rescued.
NTSTATUS QuillboxFlushFileBuffers(LPCWSTR, PDOKAN_FILE_INFO DokanFileInfo) {
  DriveState* state = GetDriveState();
  if (!state) return STATUS_UNSUCCESSFUL;
  if (!IsOriginalStructure(state)) return TraceStatus(kTagFlush, STATUS_ACCESS_DENIED, 111);
  DirectoryItem* item = ContextItem(DokanFileInfo);
  // A file whose name went while open has no place on the device any more.
  if (!item || !item->bUploadPending || IsDetached(item)) return TraceStatus(kTagFlush, STATUS_SUCCESS, 1);
  const std::string path = PathOfItem(state, item);
  // Sent as the end of an open sends it: the device's confirmation may
  // come while the next file is sent.
  const auto upload = [state, item, path] {
    std::function<void()> rest;
    UploadPending(state, item, path, &rest);
    if (rest && !qb::dokan::DeferRestOfEnd(rest)) rest();
  };
  if (qb::dokan::DeferRestOfEnd(upload)) return TraceStatus(kTagFlush, STATUS_SUCCESS, 3);
  return TraceStatus(kTagFlush, UploadPending(state, item, path), 2);
}

NTSTATUS QuillboxSetFileAttributes(LPCWSTR FileName, DWORD FileAttributes, PDOKAN_FILE_INFO DokanFileInfo) {
  Trace(kTagAttr, "\"%s\", 0x%08X", FileName ? FileName : "", static_cast<unsigned>(FileAttributes));
  DriveState* state = GetDriveState();
  if (!state) return STATUS_UNSUCCESSFUL;
  if (!IsOriginalStructure(state)) return TraceStatus(kTagAttr, STATUS_ACCESS_DENIED, 111);
  if (FileAttributes == 0) return TraceStatus(kTagAttr, STATUS_SUCCESS, 2);
  DirectoryItem* item = ContextItem(DokanFileInfo);
  // Folders keep no attributes of their own on the device.
  if ((!item && DokanFileInfo && DokanFileInfo->IsDirectory) || (item && item->bPersistent))
    return TraceStatus(kTagAttr, STATUS_SUCCESS, 7);
  if (!item) return TraceStatus(kTagAttr, STATUS_UNSUCCESSFUL, 1);
  const DWORD now = item->rFindData.dwFileAttributes;
  const DWORD changed = (now ^ FileAttributes) & kDeviceAttributes;
  if (!changed) return TraceStatus(kTagAttr, STATUS_SUCCESS, 3);
  if (!WriteAllowed(state)) return TraceStatus(kTagAttr, STATUS_ACCESS_DENIED, 6);
  const DWORD wanted = (now & ~kDeviceAttributes) | (FileAttributes & kDeviceAttributes);
  if (IsProvisional(item) || IsDetached(item)) {
    // Applied by the cleanup once the file is on the device.
    Trace(kTagAttr, "Setting attributes too early");
    item->rFindData.dwFileAttributes = wanted;
    return TraceStatus(kTagAttr, STATUS_SUCCESS, 5);
  }
  const std::string id = item->ItemIDText();
  auto wait = RegisterWait(state, id);
  auto value = [&](DWORD bit) { return (changed & bit) ? (FileAttributes & bit) : 0xFFFFFFFFu; };
  const HRESULT hr = state->pHelper->SetFileAttributes(id.c_str(), value(FILE_ATTRIBUTE_READONLY),
                                                       value(FILE_ATTRIBUTE_HIDDEN), value(FILE_ATTRIBUTE_SYSTEM));
  if (FAILED(hr)) {
    DiscardEventDone(wait);
    ForgetWriteAnswer(state);
    Trace(kTagAttr, "Ignoring the error-will be correct only locally");
    item->rFindData.dwFileAttributes = wanted;
  } else {
    Trace(kTagAttr, ">>Waiting for UPDATE callback to finish with '%s', 0x%08X", id.c_str(), 0u);
    if (!AwaitConfirmation(state, wait, kConfirmLimitMs)) {
      Trace(kTagAttr, ">>Callback was not called-overriding the attributes (0x%08X)", 0u);
      item->rFindData.dwFileAttributes = wanted;
    }
  }
  return TraceStatus(kTagAttr, STATUS_SUCCESS, 4);
}

NTSTATUS QuillboxSetFileTime(LPCWSTR FileName, const FILETIME* CreationTime, const FILETIME*,
                             const FILETIME* LastWriteTime, PDOKAN_FILE_INFO DokanFileInfo) {
  Trace(kTagTime, "\"%s\"", FileName ? FileName : "");
  if (CreationTime && LastWriteTime && CreationTime->Value() == 0 && LastWriteTime->Value() == 0) {
    Trace(kTagTime, "Skipping zeroing the time");
    return TraceStatus(kTagTime, STATUS_SUCCESS, 4);
  }
  DriveState* state = GetDriveState();
  if (!state) return STATUS_UNSUCCESSFUL;
  if (!IsOriginalStructure(state)) return TraceStatus(kTagTime, STATUS_ACCESS_DENIED, 111);
  DirectoryItem* item = ContextItem(DokanFileInfo);
  // Folders have no times that the device lets the drive set.
  if ((!item && DokanFileInfo && DokanFileInfo->IsDirectory) || (item && item->bPersistent))
    return TraceStatus(kTagTime, STATUS_SUCCESS, 9);
  if (!item) return TraceStatus(kTagTime, STATUS_UNSUCCESSFUL, 1);
  if (!CreationTime && !LastWriteTime) return TraceStatus(kTagTime, STATUS_SUCCESS, 6);
  if (!WriteAllowed(state)) return TraceStatus(kTagTime, STATUS_ACCESS_DENIED, 7);
  auto store = [&] {
    if (CreationTime) item->rFindData.ftCreationTime = *CreationTime;
    if (LastWriteTime) item->rFindData.ftLastWriteTime = *LastWriteTime;
  };
  if (IsDetached(item)) {
    // Gone from the device: the open alone sees them.
    store();
    return TraceStatus(kTagTime, STATUS_SUCCESS, 11);
  }
  if (IsProvisional(item)) {
    // Applied after the upload; the program sees them at once.
    Trace(kTagTime, item->bUploadPending ? "File doesn't exist on the device yet" : "Setting time too early");
    item->ftDelayedCreationTime = CreationTime ? *CreationTime : FILETIME{};
    item->ftDelayedLastWriteTime = LastWriteTime ? *LastWriteTime : FILETIME{};
    store();
    return TraceStatus(kTagTime, STATUS_SUCCESS, 5);
  }
  if (item->bUploadPending) {
    // New content is still to come: the times go with it.
    item->ftDelayedCreationTime = CreationTime ? *CreationTime : FILETIME{};
    item->ftDelayedLastWriteTime = LastWriteTime ? *LastWriteTime : FILETIME{};
    store();
    return TraceStatus(kTagTime, STATUS_SUCCESS, 8);
  }
  // A time the device already has raises no event to wait for.
  auto sameSecond = [](const FILETIME& a, const FILETIME& b) { return a.Value() / 10000000 == b.Value() / 10000000; };
  if ((!CreationTime || sameSecond(*CreationTime, item->rFindData.ftCreationTime)) &&
      (!LastWriteTime || sameSecond(*LastWriteTime, item->rFindData.ftLastWriteTime)))
    return TraceStatus(kTagTime, STATUS_SUCCESS, 10);
  const std::string id = item->ItemIDText();
  auto wait = RegisterWait(state, id);
  const HRESULT hr = state->pHelper->SetFileTime(id.c_str(), CreationTime, LastWriteTime);
  if (FAILED(hr)) {
    DiscardEventDone(wait);
    ForgetWriteAnswer(state);
    if (hr == E_ACCESSDENIED) return TraceStatus(kTagTime, STATUS_SUCCESS, 3);
    return TraceStatus(kTagTime, ToNtStatus(static_cast<DWORD>(hr) & 0xFFFF), 2);
  }
  Trace(kTagTime, ">>Waiting for UPDATE callback to finish with '%s', 0x%08X", id.c_str(), 0u);
  if (!AwaitConfirmation(state, wait, kConfirmLimitMs))
    Trace(kTagTime, ">>Callback was not called-overriding the time (0x%08X)", 0u);
  store();
  return TraceStatus(kTagTime, STATUS_SUCCESS, 3);
}
