// The open request (QuillboxCreateFile) and its guard.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "common/strings.h"
#include "diag/trace.h"
#include "drive/drive_internal.h"
#include "drive/write_side.h"

using namespace qb::drive;

namespace {

constexpr const char* kTag = "M2@QuillboxCreateFile: ";
constexpr DWORD kWriteAccess =
    GENERIC_WRITE | FILE_WRITE_DATA | FILE_WRITE_ATTRIBUTES | FILE_WRITE_EA | FILE_APPEND_DATA;
constexpr ULONG kSimulatedCreateOptions = 0x00040000 | 0x00400000;
// Internal answer of the write-open steps: go on as "not found".
constexpr NTSTATUS STATUS_PENDING_NOT_FOUND = 0x7FFF0001;

struct OpenRequest {
  std::string path;
  DWORD access = 0, flags = 0, disposition = 0;
  ULONG options = 0;
  PDOKAN_FILE_INFO info = nullptr;
};

void TraceRequest(const OpenRequest& r, ACCESS_MASK kernelAccess, ULONG share) {
  static const char* dispositions[] = {"", "CREATE_NEW ", "CREATE_ALWAYS ", "OPEN_EXISTING ",
                                       "OPEN_ALWAYS ", "TRUNCATE_EXISTING "};
  std::string names = r.disposition <= 5 ? dispositions[r.disposition] : "";
  if (share & FILE_SHARE_READ) names += "FILE_SHARE_READ ";
  if (share & FILE_SHARE_WRITE) names += "FILE_SHARE_WRITE ";
  if (share & FILE_SHARE_DELETE) names += "FILE_SHARE_DELETE ";
  if (r.access & GENERIC_READ) names += "GENERIC_READ ";
  if (r.access & GENERIC_WRITE) names += "GENERIC_WRITE ";
  if (r.access & FILE_READ_DATA) names += "FILE_READ_DATA ";
  if (r.access & FILE_WRITE_DATA) names += "FILE_WRITE_DATA ";
  if (r.flags & FILE_FLAG_DELETE_ON_CLOSE) names += "FILE_FLAG_DELETE_ON_CLOSE ";
  Trace(kTag, "%s", names.c_str());
  Trace(kTag, "0x%08X, 0x%08X, 0x%08X, 0x%08X, 0x%08X, 0x%08X", kernelAccess, share, r.options,
        r.access, r.disposition, r.flags);
}

// Creates (or opens with the disposition) the local copy and closes it.
DWORD TouchLocalCopy(const std::string& localPath, int openFlags) {
  const int fd = ::open(localPath.c_str(), O_WRONLY | O_CLOEXEC | openFlags, 0644);
  Trace(kTag, "HWF=0x%08X", static_cast<unsigned>(fd));
  if (fd < 0) return errno == ENOENT ? 2 : errno == EACCES ? 5 : errno == EEXIST ? 80 : 1;
  ::close(fd);
  return 0;
}

// Steps 10 to 13 for a write open in the original structure: decides,
// adds the provisional item when the file is new, and prepares the copy.
NTSTATUS PrepareWriteOpen(DriveState* state, OpenRequest& r, DirectoryItem*& item,
                          bool& alreadyExists) {
  bool makeCopy = false, truncate = false, isNew = false;
  if (!item) {
    if (r.disposition == TRUNCATE_EXISTING) return TraceStatus(kTag, STATUS_OBJECT_NAME_NOT_FOUND, 14);
    if (r.disposition == OPEN_EXISTING) return STATUS_PENDING_NOT_FOUND;
    if (r.disposition == CREATE_NEW && state->pHelper && !WriteSupported(state)) {
      Trace(kTag, "Write access not supported");
      return TraceStatus(kTag, STATUS_ACCESS_DENIED, 13);
    }
    makeCopy = true;
  } else {
    if (r.disposition == CREATE_NEW) return STATUS_OBJECT_NAME_COLLISION;
    if (r.disposition == CREATE_ALWAYS || r.disposition == OPEN_ALWAYS) {
      item->rFindData.dwFileAttributes = 0;
      alreadyExists = true;
      Trace(kTag, "%s=>return ERROR_ALREADY_EXISTS",
            r.disposition == CREATE_ALWAYS ? "CREATE_ALWAYS" : "OPEN_ALWAYS");
    }
    if (r.disposition == TRUNCATE_EXISTING && (r.access & GENERIC_WRITE)) truncate = true;
    CCacheItem* entry = state->pCache->Find(CacheName(item), item->rFindData.cFileName);
    if (!entry) {
      makeCopy = true;
    } else if (!ValidateExistingCacheEntry(state, &entry, item) && entry &&
               access(entry->sLocalPath.c_str(), F_OK) != 0) {
      if (CCache::CreateParentFolders(entry)) makeCopy = true;
      else state->pCache->Delete(&entry, 1);
    }
  }
  DirectoryItem* parent = FindFolder(state, ParentPath(r.path));
  // Write side: the root of a one-storage drive carries the storage's id.
  if (parent && FolderDeviceId(state, parent).empty()) return TraceStatus(kTag, STATUS_ACCESS_DENIED, 12);
  if (makeCopy && !item) {
    if (!parent) return STATUS_PENDING_NOT_FOUND;
    const std::string last = r.path.substr(r.path.rfind('\\') + 1);
    const std::string ext(ExtensionOf(last));
    const std::string base = last.substr(0, last.size() - ext.size());
    std::string id = "DMYID" + parent->sFullName + base + ext;
    CDirectory::StripColons(id);
    state->pDirectory->AddFile(base.c_str(), (parent->sFullName + base).c_str(),
                               FolderDeviceId(state, parent).c_str(), ext.empty() ? "" : ext.c_str() + 1, 0, nullptr,
                               id.c_str(), id.c_str(), parent->sFullName.c_str(), 0, -1);
    item = FindFile(state, r.path);
    if (!item) return STATUS_PENDING_NOT_FOUND;
    isNew = true;
  }
  CCacheItem* entry = state->pCache->Find(CacheName(item), item->rFindData.cFileName);
  if (makeCopy) {
    entry = state->pCache->Add(CacheName(item), &item->rFindData);
    if (!entry) return STATUS_SUCCESS;
    if (!CCache::CreateParentFolders(entry)) {
      state->pCache->Delete(&entry, 0);
      return STATUS_SUCCESS;
    }
    const DWORD err = TouchLocalCopy(entry->sLocalPath, O_CREAT | O_TRUNC);
    if (isNew) item->bUploadPending = 1;
    // Write side: an existing file opened to be emptied starts from nothing.
    if (!isNew && (truncate || r.disposition == CREATE_ALWAYS)) {
      item->bUploadPending = 1;
      item->rFindData.SetFileSize(0);
    }
    if (err) return alreadyExists ? TraceStatus(kTag, STATUS_OBJECT_NAME_COLLISION, 29)
                                  : TraceStatus(kTag, ToNtStatus(err), 9);
    return STATUS_SUCCESS;
  }
  if (!entry) return TraceStatus(kTag, STATUS_OBJECT_NAME_NOT_FOUND, 28);
  const int flags = truncate ? O_TRUNC
                    : r.disposition == CREATE_ALWAYS ? O_CREAT | O_TRUNC
                    : (r.disposition == OPEN_ALWAYS || r.disposition == CREATE_NEW) ? O_CREAT : 0;
  const DWORD err = TouchLocalCopy(entry->sLocalPath, flags);
  if (err) return alreadyExists ? TraceStatus(kTag, STATUS_OBJECT_NAME_COLLISION, truncate ? 20 : 21)
                                : TraceStatus(kTag, ToNtStatus(err), truncate ? 10 : 11);
  // Write side: an emptied copy is new content that the cleanup uploads.
  if (flags & O_TRUNC) {
    item->bUploadPending = 1;
    item->rFindData.SetFileSize(0);
  }
  return STATUS_SUCCESS;
}

// Step 15: the path names nothing.
NTSTATUS NotFound(OpenRequest& r) {
  Trace(kTag, "Not found: \"%s\"", r.path.c_str());
  if (HasWildcard(r.path)) {
    r.info->Context = 0;
    return TraceStatus(kTag, STATUS_OBJECT_NAME_INVALID, 7);
  }
  if (r.path.find('\\', 1) == std::string::npos) return TraceStatus(kTag, STATUS_OBJECT_NAME_NOT_FOUND, 5);
  const UCHAR wasDirectory = r.info->IsDirectory;
  const std::string parent = ParentPath(r.path);
  const NTSTATUS parentStatus = QuillboxGetFileInformation_Internal(parent.c_str(), nullptr, r.info, 1);
  r.info->IsDirectory = wasDirectory;
  Trace("M15@QuillboxGetFileInformation_Internal: ", "Restoring IsDirectory for \"%s\":%d",
        r.path.c_str(), wasDirectory);
  return TraceStatus(kTag, parentStatus == STATUS_SUCCESS ? STATUS_OBJECT_NAME_NOT_FOUND
                                                          : STATUS_OBJECT_PATH_NOT_FOUND, 5);
}

NTSTATUS FolderBranch(DriveState* state, OpenRequest& r, ULONG kernelDisposition) {
  NTSTATUS status;
  if (kernelDisposition == FILE_CREATE || kernelDisposition == FILE_OPEN_IF) {
    // Write side: folders are created on the device in the original structure.
    if (IsOriginalStructure(state)) {
      bool exists = false;
      if (kernelDisposition == FILE_OPEN_IF) {
        CReadLock lock(&state->rDriveLock);
        exists = FindFolder(state, r.path) != nullptr;
      }
      status = exists ? STATUS_SUCCESS : QuillboxCreateDirectory(r.path.c_str(), r.info);
      if (kernelDisposition == FILE_OPEN_IF) return TraceStatus(kTag, status, 21);
    } else if (kernelDisposition == FILE_CREATE) {
      status = STATUS_ACCESS_DENIED;
    } else {
      return TraceStatus(kTag, STATUS_SUCCESS, 21);
    }
  } else {
    status = QuillboxOpenDirectory(r.path.c_str(), r.info);
  }
  if (status == STATUS_SUCCESS && !r.info->IsDirectory) {
    r.info->IsDirectory = 1;
    Trace(kTag, "Setting IsDirectory for \"%s\":%d", r.path.c_str(), 1);
  }
  return TraceStatus(kTag, status, 22);
}

}  // namespace

NTSTATUS QuillboxCreateFile(LPCWSTR FileName, PDOKAN_IO_SECURITY_CONTEXT, ACCESS_MASK DesiredAccess,
                            ULONG FileAttributes, ULONG ShareAccess, ULONG CreateDisposition,
                            ULONG CreateOptions, PDOKAN_FILE_INFO DokanFileInfo) {
  DriveState* state = GetDriveState();
  if (!state || !state->pDirectory) return STATUS_UNSUCCESSFUL;
  // A device that refused writes is asked again at the next open; a "yes"
  // holds for its time (WriteSupported).
  ForgetWriteRefusal(state);
  OpenRequest r;
  r.path = FileName ? FileName : "";
  r.options = CreateOptions;
  r.info = DokanFileInfo;
  Trace(kTag, "FileName=\"%s\"", r.path.c_str());
  DokanMapKernelToUserCreateFileFlags(DesiredAccess, FileAttributes, CreateOptions,
                                      CreateDisposition, &r.access, &r.flags, &r.disposition);
  TraceRequest(r, DesiredAccess, ShareAccess);
  PopulateAncestorsOf(state, r.path);
  {
    CReadLock lock(&state->rDriveLock);
    DirectoryItem* folder = FindFolder(state, r.path);
    if (folder && (folder->rFindData.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) {
      if (CreateOptions & FILE_NON_DIRECTORY_FILE) return TraceStatus(kTag, STATUS_FILE_IS_A_DIRECTORY, 30);
      DokanFileInfo->IsDirectory = 1;
    }
    if (DokanFileInfo->IsDirectory && folder && !(folder->rFindData.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) &&
        (CreateOptions & FILE_DIRECTORY_FILE))
      return TraceStatus(kTag, STATUS_NOT_A_DIRECTORY, 29);
  }
  if (DokanFileInfo->IsDirectory || (CreateOptions & FILE_DIRECTORY_FILE))
    return FolderBranch(state, r, CreateDisposition);

  if (!CheckIntegrity(state)) {
    if (state->hooks.fnForceUnmount) state->hooks.fnForceUnmount(true);
    return TraceStatus(kTag, STATUS_UNSUCCESSFUL, 7);
  }
  SetupIcon(state, "QuillboxCreateFile");
  const bool original = IsOriginalStructure(state);
  if (!original && (r.access & kWriteAccess)) return TraceStatus(kTag, STATUS_ACCESS_DENIED, 3);

  CReadLock lock(&state->rDriveLock);
  if (!state->pDirectory->m_pFiles) return TraceStatus(kTag, STATUS_OBJECT_NAME_NOT_FOUND, 2);
  DirectoryItem* item = FindFile(state, r.path);
  bool alreadyExists = false;
  if (original && (r.access & (kWriteAccess | READ_CONTROL))) {
    const NTSTATUS prepared = PrepareWriteOpen(state, r, item, alreadyExists);
    if (prepared == STATUS_PENDING_NOT_FOUND) item = nullptr;
    else if (prepared == STATUS_OBJECT_NAME_COLLISION && !alreadyExists) return prepared;
    else if (prepared != STATUS_SUCCESS) return prepared;
  }
  if (!item) {
    const NTSTATUS status = NotFound(r);
    lock.Unlock();
    return status;
  }
  // A new open may try the device again after a failed download.
  if (!item->bDownloading) item->dwError = 0;
  item->bFileFlagDeleteOnClose = (r.flags & FILE_FLAG_DELETE_ON_CLOSE) ? 1 : 0;
  if (item->bFileFlagDeleteOnClose) Trace(kTag, "DeleteOnClose");
  item->rFindData.dwFileAttributes |=
      FileAttributes & (FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_HIDDEN);
  HoldItem(DokanFileInfo, item);
  return alreadyExists ? TraceStatus(kTag, STATUS_OBJECT_NAME_COLLISION, 26)
                       : TraceStatus(kTag, STATUS_SUCCESS, 6);
}

NTSTATUS Guard_QuillboxCreateFile(LPCWSTR FileName, PDOKAN_IO_SECURITY_CONTEXT SecurityContext,
                                  ACCESS_MASK DesiredAccess, ULONG FileAttributes,
                                  ULONG ShareAccess, ULONG CreateDisposition,
                                  ULONG CreateOptions, PDOKAN_FILE_INFO DokanFileInfo) {
  static const char* tag = "M2G@Guard_QuillboxCreateFile: ";
  DriveState* state = GetDriveState();
  if (!state) return STATUS_INTERNAL_ERROR;
  if (CreateDisposition == FILE_CREATE && (CreateOptions & kSimulatedCreateOptions)) {
    std::lock_guard hold(state->hSimulatedCreatesMutex);
    for (uint32_t i = 0; i < state->SimulatedCreates.Count(); ++i) {
      if (qb::EqualsNoCaseAZ(state->SimulatedCreates[i]->sSimulatedName, FileName ? FileName : "")) {
        Trace(tag, "simulating CreateFile done=\"%s\"", FileName);
        state->SimulatedCreates.Delete(i);
        return STATUS_SUCCESS;
      }
    }
  }
  std::unique_lock exclusive(state->hExclusiveAccessMutex, std::defer_lock);
  while (!exclusive.try_lock_for(std::chrono::milliseconds(100)))
    Trace(tag, "Waiting for exclusive access");
  return QuillboxCreateFile(FileName, SecurityContext, DesiredAccess, FileAttributes, ShareAccess,
                            CreateDisposition, CreateOptions, DokanFileInfo);
}
