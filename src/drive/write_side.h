#pragma once
// Steps of the drive's write side shared by its files (not part of the
// public header): completion waits, re-listing after a missed confirmation,
// the device delete and upload of a file, the rescue of content that could
// not reach the device, and the event worker's changes to the tree.
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "drive/drive_internal.h"

namespace qb::drive {

// Time limits of the confirmations.
constexpr uint32_t kConfirmLimitMs = 3000;
constexpr uint32_t kDeleteConfirmLimitMs = 15000;

// An item made by an open that has no device object yet ("DMYID...").
bool IsProvisional(const DirectoryItem* item);

// The device object id of a folder item: its own, or for the root of a
// drive that shows one storage the storage's id (the root folder item is
// made by the tree before the storage is listed). "" when it has none.
std::string FolderDeviceId(const DriveState* state, const DirectoryItem* folder);

// Registers a completion wait under the name; null when it cannot be made
// (the caller must then not ask the device).
std::shared_ptr<CSyncEvent> RegisterWait(DriveState* state, const std::string& name);
// Waits up to limitMs; on a time-out logs ">>Callback was not called" and
// withdraws the wait. True when the device confirmed.
bool AwaitConfirmation(DriveState* state, const std::shared_ptr<CSyncEvent>& wait, uint32_t limitMs);

// Brings the tree's picture of one folder in line with the device (takes
// the drive lock for writing): objects gone from the device leave the tree,
// new ones come in. The folder is given by its device id, or by a path on
// the drive whose containing folder is meant.
void RelistFolderById(DriveState* state, const std::string& folderId);
void RelistFolderOfPath(DriveState* state, const std::string& path);

// Whether the device accepts changes; logs "Write access not supported".
// A "yes" of the device holds for kWriteAnswerMs, across opens: a copy of
// many small files asks the device about once a second, not once a file.
// A "no" holds until the next open (ForgetWriteRefusal), so a device that
// takes writes again is used at once. Any change the device refused or
// failed forgets the answer (ForgetWriteAnswer): the next change asks.
constexpr uint64_t kWriteAnswerMs = 1000;
bool WriteAllowed(DriveState* state);
// The same without the log line.
bool WriteSupported(DriveState* state);
void ForgetWriteAnswer(DriveState* state);
void ForgetWriteRefusal(DriveState* state);

// Free space (volume.cpp). Whether `bytes` fit in the storage's free space
// (always, while it is unknown); a figure that says no is read from the
// device again first.
bool FitsFreeSpace(DriveState* state, uint64_t bytes);
// After an upload that took `grown` bytes more of the storage: the stored
// free space follows, read from the device when its figure is older than
// kFreeSpaceReadEveryMs, else worked out.
constexpr uint64_t kFreeSpaceReadEveryMs = 1000;
void NoteUploadedBytes(DriveState* state, int64_t grown);

// Deletes the item's device object and waits for the confirmation (the
// item goes pending-delete meanwhile, unless its own new content replaces
// the object: then it stays visible). The HRESULT of the device.
HRESULT DeleteOnDevice(DriveState* state, DirectoryItem* item, const std::string& path, bool replacing = false);
// Whether the item's old object is being deleted for its own upload (the
// event worker then leaves the item as it is).
bool IsBeingReplaced(const DirectoryItem* item);
// Holds hUploadMutex (waits in slices of 100 ms, logging each); with
// `sentToo` also waits until every sent upload is confirmed (or given up).
std::unique_lock<std::recursive_timed_mutex> HoldUploads(DriveState* state, const char* tag, bool sentToo = true);

// Uploads the pending content of a file item (cleanup, flush, rename). A
// failed upload keeps the content in the rescue folder. STATUS_SUCCESS, or
// the status a program is to see. With `rest`, a sent upload leaves the
// wait for the device's confirmation (and what comes after it) in *rest,
// which the caller must run; the next upload of the same file waits for it,
// others do not. Without, the upload is whole when it returns, and it
// starts after every earlier one is confirmed.
NTSTATUS UploadPending(DriveState* state, DirectoryItem* item, const std::string& path,
                       std::function<void()>* rest = nullptr);

// Copies content that could not reach the device into
// <local data>/Quillbox/Rescued/<device>/<path on the drive> (a time in the
// name when that name is taken), logs and tells the user where it is. The
// rescued file's path, or "" when even the copy failed.
std::string RescueContent(DriveState* state, const std::string& localPath, const std::string& drivePath,
                          const char* reason);

// Marks a write of the item as refused (device full): its content must not
// reach the device as if complete. Cleared by the next successful upload.
void NoteRefusedWrite(DirectoryItem* item);
bool TakeRefusedWrite(DirectoryItem* item);

// Opens and their items (open_items.cpp). An open holds its item from the
// open to its CloseFile: the record is not refilled meanwhile.
void HoldItem(PDOKAN_FILE_INFO info, DirectoryItem* item);
// Clears the open's context; at the last hold of an item whose name went,
// its kept copy is removed.
void ReleaseHold(PDOKAN_FILE_INFO info);
// Whether the item's name went while it was open; its copy then is
// DetachedCopyOf ("" when it had none), and nothing of it reaches the device.
bool IsDetached(const DirectoryItem* item);
std::string DetachedCopyOf(const DirectoryItem* item);
// The drive lock held for writing: takes the item's copy out of the cache
// for its opens (the name now belongs to nobody or another object).
void DetachCopy(DriveState* state, DirectoryItem* item);
// The drive lock held for writing: flags the item deleted; a held file
// keeps its copy (DetachCopy) unless the delete is its own upload's.
void MarkGone(DriveState* state, DirectoryItem* item);
// The drive lock held for writing: gives the item a new path and name
// (folders: their content follows; files: their copy follows).
void RenameItem(DriveState* state, DirectoryItem* item, const std::string& fullName, const std::string& name);
// The drive lock held for writing: the copy follows a renamed file.
void RenameCopy(DriveState* state, DirectoryItem* item, const std::string& oldName, const std::string& oldFileName);
// The item's path on the drive now (takes the drive lock for reading).
std::string PathOfItem(DriveState* state, const DirectoryItem* item);
// Fetches the device's whole content of a file into its copy (nothing for
// a file without device content). Called with the exclusive-access mutex
// held and without the drive lock.
NTSTATUS FetchWholeCopy(DriveState* state, DirectoryItem* item, const std::string& path);

// The event worker's handling of created, deleted and updated objects.
void ProcessItemEvent(DriveState* state, const EventItem& event);

}  // namespace qb::drive

void SignalEventDone(const std::string& name);
void DiscardEventDone(const std::shared_ptr<CSyncEvent>& event);

NTSTATUS Guard_QuillboxWriteFile(LPCWSTR FileName, LPCVOID Buffer, DWORD NumberOfBytesToWrite,
                                 LPDWORD NumberOfBytesWritten, LONGLONG Offset,
                                 PDOKAN_FILE_INFO DokanFileInfo);
NTSTATUS QuillboxSetEndOfFile(LPCWSTR FileName, LONGLONG ByteOffset, PDOKAN_FILE_INFO DokanFileInfo);
NTSTATUS QuillboxSetAllocationSize(LPCWSTR FileName, LONGLONG AllocSize, PDOKAN_FILE_INFO DokanFileInfo);
NTSTATUS QuillboxFlushFileBuffers(LPCWSTR FileName, PDOKAN_FILE_INFO DokanFileInfo);
NTSTATUS QuillboxSetFileAttributes(LPCWSTR FileName, DWORD FileAttributes, PDOKAN_FILE_INFO DokanFileInfo);
NTSTATUS QuillboxSetFileTime(LPCWSTR FileName, const FILETIME* CreationTime, const FILETIME* LastAccessTime,
                             const FILETIME* LastWriteTime, PDOKAN_FILE_INFO DokanFileInfo);
void QuillboxCleanup(LPCWSTR FileName, PDOKAN_FILE_INFO DokanFileInfo);
NTSTATUS QuillboxDeleteFile(LPCWSTR FileName, PDOKAN_FILE_INFO DokanFileInfo);
NTSTATUS QuillboxDeleteDirectory(LPCWSTR FileName, PDOKAN_FILE_INFO DokanFileInfo);
NTSTATUS Guard_QuillboxMoveFile(LPCWSTR FileName, LPCWSTR NewFileName, BOOL ReplaceIfExisting,
                                PDOKAN_FILE_INFO DokanFileInfo);
NTSTATUS QuillboxCreateDirectory(LPCWSTR FileName, PDOKAN_FILE_INFO DokanFileInfo);
// The device delete of a folder (RemoveDirFromPersistFolders outside the
// tree-only case): an HRESULT.
HRESULT DeleteFolderOnDevice(DriveState* state, DirectoryItem* folder, const std::string& path);
