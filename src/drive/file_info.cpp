// File information, folder opens and closes.
#include "common/strings.h"
#include "diag/trace.h"
#include "drive/write_side.h"

using namespace qb::drive;

namespace {

constexpr DWORD kVolumeSerial = 0x600DCAFE;

// A stable 32-bit index per item: the hash of its device id (of its full
// name when it has none).
DWORD FileIndexOf(const DirectoryItem* item) {
  const std::string key = item->sItemID ? *item->sItemID : item->sFullName;
  uint32_t h = 2166136261u;
  for (unsigned char c : key) h = (h ^ c) * 16777619u;
  return h;
}

void FillInformation(const DirectoryItem* item, BY_HANDLE_FILE_INFORMATION* info) {
  const WIN32_FIND_DATAW& fd = item->rFindData;
  info->dwFileAttributes = fd.dwFileAttributes;
  if (!(fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) info->dwFileAttributes |= FILE_ATTRIBUTE_ARCHIVE;
  info->ftCreationTime = fd.ftCreationTime;
  info->ftLastAccessTime = fd.ftLastAccessTime;
  info->ftLastWriteTime = fd.ftLastWriteTime;
  info->dwVolumeSerialNumber = kVolumeSerial;
  info->nFileSizeHigh = fd.nFileSizeHigh;
  info->nFileSizeLow = fd.nFileSizeLow;
  info->nNumberOfLinks = 1;
  info->nFileIndexHigh = 0;
  info->nFileIndexLow = FileIndexOf(item);
}

// FindTheFile_GetFileInformation: the exact lookup, then the path taken as a
// wildcard expression.
DirectoryItem* FindTheFile_GetFileInformation(DriveState* state, bool folders, std::string_view path,
                                              BY_HANDLE_FILE_INFORMATION* info, DWORD* error) {
  DirectoryItem* item = folders ? FindFolder(state, path) : FindFile(state, path);
  if (!item && HasWildcard(path)) {
    const CDirectory::ItemList* list =
        folders ? state->pDirectory->m_pPersistFolders.get() : state->pDirectory->m_pFiles.get();
    const std::string expression(path);
    for (DirectoryItem* candidate : Raw(*list)) {
      if (!candidate->IsLive()) continue;
      const std::string name = folders ? candidate->sFullName : FileFullName(candidate);
      if (DokanIsNameInExpression(expression.c_str(), name.c_str(), TRUE)) {
        item = candidate;
        break;
      }
    }
  }
  if (item) {
    *error = 0;
    if (info) FillInformation(item, info);
  }
  return item;
}

}  // namespace

NTSTATUS QuillboxGetFileInformation_Internal(LPCWSTR FileName, LPBY_HANDLE_FILE_INFORMATION Buffer,
                                             PDOKAN_FILE_INFO DokanFileInfo, int hint) {
  static const char* tag = "M15@QuillboxGetFileInformation_Internal: ";
  DriveState* state = GetDriveState();
  if (!state || !state->pDirectory) return STATUS_UNSUCCESSFUL;
  const std::string_view path(FileName ? FileName : "");
  // An open file answers for its own object, whatever the name leads to now.
  if (DirectoryItem* item = ContextItem(DokanFileInfo); item && !item->bPersistent && !hint) {
    CReadLock lock(&state->rDriveLock);
    if (Buffer) FillInformation(item, Buffer);
    return STATUS_SUCCESS;
  }
  DWORD error = 3;
  if (hint || DokanFileInfo->IsDirectory) {
    CReadLock lock(&state->rDriveLock);
    if (FindTheFile_GetFileInformation(state, true, path, Buffer, &error)) {
      if (hint) {
        DokanFileInfo->IsDirectory = 1;
        Trace(tag, "Setting IsDirectory for \"%s\":%d", FileName, 1);
      }
      return ToNtStatus(0);
    }
  }
  error = 2;
  {
    CReadLock lock(&state->rDriveLock);
    if (FindTheFile_GetFileInformation(state, false, path, Buffer, &error) && hint) {
      DokanFileInfo->IsDirectory = 0;
      Trace(tag, "Dropping IsDirectory for \"%s\":%d", FileName, 0);
    }
  }
  return ToNtStatus(error);
}

NTSTATUS QuillboxGetFileInformation(LPCWSTR FileName, LPBY_HANDLE_FILE_INFORMATION Buffer,
                                    PDOKAN_FILE_INFO DokanFileInfo) {
  static const char* tag = "M4@QuillboxGetFileInformation: ";
  Trace(tag, "FileName=\"%s\"", FileName);
  return TraceStatus(tag, QuillboxGetFileInformation_Internal(FileName, Buffer, DokanFileInfo, 0));
}

NTSTATUS QuillboxOpenDirectory(LPCWSTR FileName, PDOKAN_FILE_INFO DokanFileInfo) {
  static const char* tag = "M3@QuillboxOpenDirectory: ";
  Trace(tag, "ENTER ");
  DriveState* state = GetDriveState();
  if (!state) return TraceStatus(tag, STATUS_UNSUCCESSFUL, 1);
  if (!CheckIntegrity(state)) {
    if (state->hooks.fnForceUnmount) state->hooks.fnForceUnmount(true);
    return TraceStatus(tag, STATUS_UNSUCCESSFUL, 1);
  }
  SetupIcon(state, "QuillboxOpenDirectory");
  const std::string_view path(FileName ? FileName : "");
  if (path.empty()) {
    Trace(tag, "Invalid argument");
    return TraceStatus(tag, STATUS_UNSUCCESSFUL, 2);
  }
  CReadLock lock(&state->rDriveLock);
  if (DirectoryItem* folder = FindFolder(state, path)) {
    HoldItem(DokanFileInfo, folder);
    return TraceStatus(tag, STATUS_SUCCESS, 3);
  }
  if (FindFileByFullNameOnly(state, path)) return TraceStatus(tag, ToNtStatus(267), 4);
  return TraceStatus(tag, STATUS_OBJECT_NAME_NOT_FOUND, 5);
}

void QuillboxCloseFile(LPCWSTR FileName, PDOKAN_FILE_INFO DokanFileInfo) {
  static const char* tag = "M7@QuillboxCloseFile: ";
  if (HasWildcard(FileName ? FileName : "")) return;
  DriveState* state = GetDriveState();
  if (!state) return;
  CReadLock lock(&state->rDriveLock);
  if (DokanFileInfo->Context) {
    Trace(tag, "CLOSE_FILE : \"%s\" (0x%08X)", FileName,
          static_cast<unsigned>(DokanFileInfo->Context));
    ReleaseHold(DokanFileInfo);
  } else {
    Trace(tag, "Close: \"%s\"", FileName);
  }
}
