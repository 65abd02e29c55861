// Deleting files and folders, renaming and moving, creating folders. Each
// change is asked of the device and confirmed by its own event, or by
// listing the folder again when none comes in time.
#include "common/strings.h"
#include "diag/trace.h"
#include "drive/write_side.h"

using namespace qb::drive;

namespace {

constexpr const char* kTagDelete = "M20@QuillboxDeleteFile: ";
constexpr const char* kTagRmdir = "M21@QuillboxDeleteDirectory: ";
constexpr const char* kTagMove = "M22@QuillboxMoveFile: ";
constexpr const char* kTagMkdir = "M23@QuillboxCreateDirectory: ";
constexpr HRESULT kNotSupported = static_cast<HRESULT>(0x80070032u);

NTSTATUS FromHresult(HRESULT hr) { return ToNtStatus(static_cast<DWORD>(hr) & 0xFFFF); }

std::string Trimmed(std::string path) {
  if (path.size() > 1 && path.back() == '\\') path.pop_back();
  return path;
}

std::string LastName(const std::string& path) {
  const std::string trimmed = Trimmed(path);
  return trimmed.substr(trimmed.rfind('\\') + 1);
}

// Whether the file may go; clears a pending upload as the delete wants.
NTSTATUS MayDelete(DirectoryItem* item, const std::string& path, const char* tag) {
  if (item->bUploadPending) {
    item->bUploadPending = 0;
    Trace(tag, "Upload cancelled");
  }
  if (item->rFindData.dwFileAttributes & FILE_ATTRIBUTE_READONLY) {
    Trace(tag, "Read-only file: \"%s\"", path.c_str());
    return TraceStatus(tag, STATUS_ACCESS_DENIED, 4);
  }
  if (item->rFindData.dwFileAttributes & FILE_ATTRIBUTE_SYSTEM) {
    Trace(tag, "System file: \"%s\"", path.c_str());
    return TraceStatus(tag, STATUS_ACCESS_DENIED, 5);
  }
  return STATUS_SUCCESS;
}

int NoFill(PWIN32_FIND_DATAW, PDOKAN_FILE_INFO) { return 0; }

// Entries of the folder that the tree holds: files and folders below it.
bool HasEntries(DriveState* state, const std::string& folder) {
  for (const CDirectory::ItemList* list :
       {state->pDirectory->m_pFiles.get(), state->pDirectory->m_pPersistFolders.get()}) {
    if (!list) continue;
    for (DirectoryItem* item : Raw(*list))
      if (item->IsLive() && item->sFullName.size() > folder.size() &&
          qb::EqualsNoCaseAZ(std::string_view(item->sFullName).substr(0, folder.size()), folder))
        return true;
  }
  return false;
}

// Asks the device for one move or rename of the item and waits for its
// confirmation; re-lists the folders concerned when none comes.
NTSTATUS AskMove(DriveState* state, const std::string& id, const std::string& target, bool rename,
                 const std::string& parentId, const std::string& otherFolderId) {
  Trace(kTagMove, "%s", rename ? "...rename" : "...move");
  auto wait = RegisterWait(state, id);
  const HRESULT hr = state->pHelper->MoveFile(id.c_str(), target.c_str(), rename ? 1 : 0);
  if (FAILED(hr)) {
    DiscardEventDone(wait);
    ForgetWriteAnswer(state);
    return TraceStatus(kTagMove, hr == kNotSupported ? STATUS_ACCESS_DENIED : FromHresult(hr), 14);
  }
  Trace(kTagMove, ">>Waiting for UPDATE callback to finish with '%s', 0x%08X", id.c_str(), 0u);
  if (!AwaitConfirmation(state, wait, kConfirmLimitMs)) {
    RelistFolderById(state, parentId);
    if (!otherFolderId.empty()) RelistFolderById(state, otherFolderId);
  }
  return STATUS_SUCCESS;
}

// A late event of an earlier change of the object may have stood in for
// this move's confirmation: the program's next step (open the new name)
// must find it, so a tree that does not show it yet learns the folder anew.
void CatchUp(DriveState* state, const std::string& dst, bool file, const std::string& folderId) {
  {
    CReadLock lock(&state->rDriveLock);
    if (file ? FindFile(state, dst) != nullptr : FindFolder(state, dst) != nullptr) return;
  }
  Trace(kTagMove, "Not in the tree yet: \"%s\"", dst.c_str());
  RelistFolderById(state, folderId);
}

struct MoveScan {
  DirectoryItem *srcFolder = nullptr, *dstFolder = nullptr, *srcFile = nullptr, *dstFile = nullptr;
};

NTSTATUS Decide(const MoveScan& s, BOOL replace) {
  if (!s.srcFolder && !s.srcFile) return TraceStatus(kTagMove, STATUS_OBJECT_NAME_NOT_FOUND, 3);
  if ((s.dstFolder || s.dstFile) && !replace) return TraceStatus(kTagMove, STATUS_OBJECT_NAME_COLLISION, 4);
  if (s.srcFolder && s.dstFile) return TraceStatus(kTagMove, STATUS_OBJECT_NAME_COLLISION, 5);
  if (s.srcFile && s.dstFolder) return TraceStatus(kTagMove, STATUS_OBJECT_NAME_COLLISION, 6);
  if (s.srcFolder && s.dstFolder) return TraceStatus(kTagMove, STATUS_OBJECT_NAME_COLLISION, 7);
  if (s.srcFolder && s.srcFile) return TraceStatus(kTagMove, STATUS_UNSUCCESSFUL, 8);
  return STATUS_SUCCESS;
}

NTSTATUS QuillboxMoveFile(LPCWSTR FileName, LPCWSTR NewFileName, BOOL ReplaceIfExisting, PDOKAN_FILE_INFO) {
  const std::string src(FileName ? FileName : ""), dst(NewFileName ? NewFileName : "");
  Trace(kTagMove, "FileName=\"%s\", NewFileName=\"%s\", %d", src.c_str(), dst.c_str(), ReplaceIfExisting);
  DriveState* state = GetDriveState();
  if (!state || !state->pDirectory) return STATUS_UNSUCCESSFUL;
  if (!IsOriginalStructure(state)) return TraceStatus(kTagMove, STATUS_ACCESS_DENIED, 111);
  if (src == "\\") return TraceStatus(kTagMove, STATUS_UNSUCCESSFUL, 1);
  if (dst == "\\") return TraceStatus(kTagMove, STATUS_UNSUCCESSFUL, 2);
  PopulateAncestorsOf(state, dst);
  // A rename right after a close waits for that close's upload.
  auto uploads = HoldUploads(state, kTagMove);
  MoveScan s;
  {
    CReadLock lock(&state->rDriveLock);
    s = {FindFolder(state, src), FindFolder(state, dst), FindFile(state, src), FindFile(state, dst)};
  }
  if (const NTSTATUS refused = Decide(s, ReplaceIfExisting); refused != STATUS_SUCCESS) return refused;
  if (s.dstFolder && s.dstFile) return TraceStatus(kTagMove, STATUS_UNSUCCESSFUL, 9);
  DirectoryItem* item = s.srcFile ? s.srcFile : s.srcFolder;
  Trace(kTagMove, "Moving %s '%s' to '%s'", s.srcFile ? "file" : "folder", src.c_str(), dst.c_str());
  const std::string srcDir = ParentPath(Trimmed(src)), dstDir = ParentPath(Trimmed(dst));
  const std::string srcName = LastName(src), dstName = LastName(dst);
  const bool sameFolder = qb::EqualsNoCaseAZ(srcDir, dstDir);
  if (sameFolder && qb::EqualsNoCaseAZ(srcName, dstName)) return TraceStatus(kTagMove, STATUS_SUCCESS, 10);
  if (!WriteAllowed(state)) return TraceStatus(kTagMove, STATUS_ACCESS_DENIED, 15);
  // Content still waiting for its upload goes first: the device can only
  // move what it holds.
  if (s.srcFile && s.srcFile->bUploadPending) {
    const NTSTATUS uploaded = UploadPending(state, s.srcFile, src);
    if (uploaded != STATUS_SUCCESS) return TraceStatus(kTagMove, uploaded, 16);
    CReadLock lock(&state->rDriveLock);
    item = FindFile(state, src);
    if (!item) return TraceStatus(kTagMove, STATUS_OBJECT_NAME_NOT_FOUND, 3);
  }
  std::string id, parentId, targetFolderId;
  {
    CReadLock lock(&state->rDriveLock);
    if (!item->sItemID || IsProvisional(item)) return TraceStatus(kTagMove, STATUS_OBJECT_NAME_NOT_FOUND, 3);
    id = *item->sItemID;
    parentId = item->sParentID;
    if (parentId.empty()) {
      parentId = FolderDeviceId(state, FindFolder(state, srcDir));
      Trace(kTagMove, "pID=%s", parentId.c_str());
    }
    if (!sameFolder) {
      targetFolderId = FolderDeviceId(state, FindFolder(state, dstDir));
      if (targetFolderId.empty()) return TraceStatus(kTagMove, STATUS_OBJECT_PATH_NOT_FOUND, 12);
    }
    if (s.dstFile) {
      Trace(kTagMove, "Replace Existing Target File");
      if (const NTSTATUS may = MayDelete(s.dstFile, dst, kTagMove); may != STATUS_SUCCESS) return may;
    }
  }
  if (!sameFolder && FAILED(state->pHelper->IsMoveSupported())) {
    Trace(kTagMove, "Move not supported");
    return TraceStatus(kTagMove, FromHresult(state->pHelper->IsMoveSupported()), 13);
  }
  if (s.dstFile) {
    // Opens of the replaced file keep reading it after the name is taken.
    if (s.dstFile->nOpenHolds.load() != 0) FetchWholeCopy(state, s.dstFile, dst);
    const HRESULT hr = DeleteOnDevice(state, s.dstFile, dst);
    if (FAILED(hr)) return TraceStatus(kTagMove, FromHresult(hr), 11);
  }
  NTSTATUS status = STATUS_SUCCESS;
  if (!sameFolder) status = AskMove(state, id, targetFolderId, false, parentId, targetFolderId);
  if (status == STATUS_SUCCESS && srcName != dstName)
    status = AskMove(state, id, dstName, true, sameFolder ? parentId : targetFolderId, "");
  if (status == STATUS_SUCCESS) CatchUp(state, dst, s.srcFile != nullptr, sameFolder ? parentId : targetFolderId);
  return TraceStatus(kTagMove, status, 14);
}

}  // namespace

NTSTATUS QuillboxDeleteFile(LPCWSTR FileName, PDOKAN_FILE_INFO DokanFileInfo) {
  const std::string path(FileName ? FileName : "");
  Trace(kTagDelete, "FileName=\"%s\"", path.c_str());
  DriveState* state = GetDriveState();
  if (!state || !state->pDirectory) return STATUS_UNSUCCESSFUL;
  CReadLock lock(&state->rDriveLock);
  DirectoryItem* item = ContextItem(DokanFileInfo);
  if (!item) item = FindFile(state, path);
  if (!item) {
    Trace(kTagDelete, "File not found: \"%s\"", path.c_str());
    return FindFolder(state, path) ? TraceStatus(kTagDelete, STATUS_ACCESS_DENIED, 1)
                                   : TraceStatus(kTagDelete, STATUS_DIRECTORY_NOT_EMPTY, 2);
  }
  if (item->bPersistent) return TraceStatus(kTagDelete, STATUS_ACCESS_DENIED, 6);
  if (const NTSTATUS may = MayDelete(item, path, kTagDelete); may != STATUS_SUCCESS) return may;
  if (IsOriginalStructure(state) && !IsProvisional(item) && !WriteAllowed(state))
    return TraceStatus(kTagDelete, STATUS_ACCESS_DENIED, 7);
  return TraceStatus(kTagDelete, STATUS_SUCCESS, 3);
}

NTSTATUS QuillboxDeleteDirectory(LPCWSTR FileName, PDOKAN_FILE_INFO DokanFileInfo) {
  const std::string path(FileName ? FileName : "");
  Trace(kTagRmdir, "FileName=\"%s\"", path.c_str());
  DriveState* state = GetDriveState();
  if (!state || !state->pDirectory) return STATUS_UNSUCCESSFUL;
  {
    CReadLock lock(&state->rDriveLock);
    if (!FindFolder(state, path)) return TraceStatus(kTagRmdir, STATUS_SUCCESS, 1);
  }
  // A folder never listed may hold what the tree does not know yet.
  QuillboxFindFiles(path.c_str(), &NoFill, DokanFileInfo);
  {
    CReadLock lock(&state->rDriveLock);
    if (HasEntries(state, WithBackslash(path))) return TraceStatus(kTagRmdir, STATUS_DIRECTORY_NOT_EMPTY, 4);
  }
  const HRESULT hr = RemoveDirFromPersistFolders(state, path, IsOriginalStructure(state) ? 0 : 1);
  if (hr < 0) return TraceStatus(kTagRmdir, FromHresult(hr), 2);
  return TraceStatus(kTagRmdir, STATUS_SUCCESS, 2);
}

NTSTATUS Guard_QuillboxMoveFile(LPCWSTR FileName, LPCWSTR NewFileName, BOOL ReplaceIfExisting,
                                PDOKAN_FILE_INFO DokanFileInfo) {
  DriveState* state = GetDriveState();
  if (!state) return STATUS_INTERNAL_ERROR;
  std::unique_lock exclusive(state->hExclusiveAccessMutex, std::defer_lock);
  while (!exclusive.try_lock_for(std::chrono::milliseconds(100)))
    Trace("M22G@Guard_QuillboxMoveFile: ", "Waiting for exclusive access");
  return QuillboxMoveFile(FileName, NewFileName, ReplaceIfExisting, DokanFileInfo);
}

NTSTATUS QuillboxCreateDirectory(LPCWSTR FileName, PDOKAN_FILE_INFO) {
  const std::string name(FileName ? FileName : "");
  Trace(kTagMkdir, "FileName=\"%s\"", name.c_str());
  DriveState* state = GetDriveState();
  if (!state || !state->pDirectory) return STATUS_UNSUCCESSFUL;
  if (!IsOriginalStructure(state)) return TraceStatus(kTagMkdir, STATUS_ACCESS_DENIED, 111);
  if (!CheckIntegrity(state)) {
    if (state->hooks.fnForceUnmount) state->hooks.fnForceUnmount(true);
    return TraceStatus(kTagMkdir, STATUS_UNSUCCESSFUL, 1);
  }
  SetupIcon(state, "QuillboxCreateDirectory");
  const std::string path = name == "\\" ? name : WithBackslash(name);
  std::string parentId;
  {
    CReadLock lock(&state->rDriveLock);
    if (FindFolder(state, path) || FindFile(state, Trimmed(name))) return TraceStatus(kTagMkdir, STATUS_OBJECT_NAME_COLLISION, 2);
    parentId = FolderDeviceId(state, FindFolder(state, ParentPath(Trimmed(name))));
    if (parentId.empty()) return TraceStatus(kTagMkdir, STATUS_ACCESS_DENIED, 4);
  }
  if (!WriteAllowed(state)) return TraceStatus(kTagMkdir, STATUS_ACCESS_DENIED, 5);
  auto wait = RegisterWait(state, path);
  const HRESULT hr = state->pHelper->CreateDirectory(LastName(name).c_str(), parentId.c_str());
  if (FAILED(hr)) {
    DiscardEventDone(wait);
    ForgetWriteAnswer(state);
    return TraceStatus(kTagMkdir, FromHresult(hr), 6);
  }
  Trace(kTagMkdir, ">>Waiting for CREATE callback to finish with '%s', 0x%08X", path.c_str(), 0u);
  if (!AwaitConfirmation(state, wait, kConfirmLimitMs)) RelistFolderById(state, parentId);
  return TraceStatus(kTagMkdir, STATUS_SUCCESS, 3);
}

HRESULT DeleteFolderOnDevice(DriveState* state, DirectoryItem* folder, const std::string& path) {
  if (!WriteAllowed(state)) return E_ACCESSDENIED;
  std::string id;
  {
    CReadLock lock(&state->rDriveLock);
    if (!folder->sItemID) return E_ACCESSDENIED;
    id = *folder->sItemID;
  }
  const std::string waitName = WithBackslash(path);
  auto wait = RegisterWait(state, waitName);
  const HRESULT hr = state->pHelper->DeleteFile(id.c_str());
  if (FAILED(hr)) {
    DiscardEventDone(wait);
    ForgetWriteAnswer(state);
    return hr;
  }
  Trace(kTagRmdir, ">>Waiting for DELETE callback to finish with '%s', 0x%08X", waitName.c_str(), 0u);
  if (!AwaitConfirmation(state, wait, kConfirmLimitMs)) RelistFolderOfPath(state, waitName);
  return S_OK;
}
