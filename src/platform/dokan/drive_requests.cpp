// Requests on names: lookup, attributes, folders, deletion and renaming, as
// the calls that Windows makes for the same user action.
#include <fcntl.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <cstring>

#include "common/strings.h"
#include "platform/dokan/drive.h"
#include "platform/dokan/request_flags.h"
#include "platform/dokan/status_errno.h"
#include "platform/system/clock.h"

namespace qb::dokan {

using namespace requests;

int Drive::Lookup(fuse_req_t req, uint64_t parent, const char* name, fuse_entry_param* e) {
  if (!UsableName(name)) return ENOENT;
  AwaitClosed(nodes_.Find(parent, name));
  std::string path;
  if (int err = ChildPath(parent, name, &path)) return err;
  BY_HANDLE_FILE_INFORMATION info;
  if (int err = QueryByPath(req, path, &info)) return err;
  const uint64_t node = nodes_.Obtain(parent, name, true);
  if (!node) return ESTALE;
  EntryOf(node, info, e);
  return 0;
}

// An object that is open answers through its open, whatever happened to
// its name since: the kernel asks without a handle for fstat(2) too.
int Drive::GetAttr(fuse_req_t req, uint64_t node, Open* open, struct stat* st) {
  AwaitClosed(node);
  Borrowed lent;
  if (!open) {
    lent = Borrow(node);
    open = lent.open;
  }
  BY_HANDLE_FILE_INFORMATION info;
  std::string path;
  int err = open ? InfoOfOpen(req, node, open, &info) : NamedPathOf(node, &path);
  if (!err && !open) err = QueryByPath(req, path, &info);
  if (err) return err;
  StatOfNode(info, node, st);
  return 0;
}

// Order as a Windows program would do it: size, times, then the read-only
// bit (set last, so that it does not refuse the other changes).
int Drive::ApplySetAttr(const std::string& path, const struct stat* attr, int toSet,
                        DOKAN_FILE_INFO* di) {
  BY_HANDLE_FILE_INFORMATION before;
  if (int err = ErrnoOfStatus(table_.GetInformation(path, &before, di))) return err;
  if ((toSet & (FUSE_SET_ATTR_UID | FUSE_SET_ATTR_GID)) &&
      (((toSet & FUSE_SET_ATTR_UID) && attr->st_uid != owner_.uid) ||
       ((toSet & FUSE_SET_ATTR_GID) && attr->st_gid != owner_.gid)))
    return EPERM;  // files of the drive have no owner of their own
  if (toSet & FUSE_SET_ATTR_SIZE) {
    if (int err = ErrnoOfStatus(table_.SetEndOfFile(path, attr->st_size, di))) return err;
    if (attr->st_size < SizeOf(before) && table_.HasSetAllocationSize())
      if (int err = ErrnoOfStatus(table_.SetAllocationSize(path, attr->st_size, di))) return err;
  }
  if (toSet & (FUSE_SET_ATTR_ATIME | FUSE_SET_ATTR_MTIME)) {
    const FILETIME now = qb::sys::GetSystemTimeAsFileTime();
    FILETIME access = (toSet & FUSE_SET_ATTR_ATIME_NOW) ? now : FileTimeOf(attr->st_atim);
    FILETIME write = (toSet & FUSE_SET_ATTR_MTIME_NOW) ? now : FileTimeOf(attr->st_mtim);
    const NTSTATUS status =
        table_.SetTime(path, nullptr, (toSet & FUSE_SET_ATTR_ATIME) ? &access : nullptr,
                       (toSet & FUSE_SET_ATTR_MTIME) ? &write : nullptr, di);
    if (int err = ErrnoOfStatus(status)) return err;
  }
  if (toSet & FUSE_SET_ATTR_MODE) {
    const DWORD wanted = AttributesForMode(before.dwFileAttributes, attr->st_mode);
    if (wanted != before.dwFileAttributes) {
      const DWORD value = wanted ? wanted : FILE_ATTRIBUTE_NORMAL;
      if (int err = ErrnoOfStatus(table_.SetAttributes(path, value, di))) return err;
    }
  }
  return 0;
}

int Drive::SetAttr(fuse_req_t req, uint64_t node, const struct stat* attr, int toSet, Open* open,
                   struct stat* st) {
  AwaitClosed(node);
  std::string path;
  int err = NamedPathOf(node, &path);
  Borrowed lent;
  if (err == ENOENT && !open) {  // no name any more: only an open reaches it
    lent = Borrow(node);
    open = lent.open;
  }
  if (open) err = PathOf(node, &path);
  if (err) return err;
  BY_HANDLE_FILE_INFORMATION after;
  if (open) {
    DOKAN_FILE_INFO di = Begin(req, open);
    err = ApplySetAttr(path, attr, toSet, &di);
    if (!err) err = ErrnoOfStatus(table_.GetInformation(path, &after, &di));
    End(open, di);
  } else {
    ACCESS_MASK access = FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES | SYNCHRONIZE;
    if (toSet & FUSE_SET_ATTR_SIZE) access |= FILE_GENERIC_WRITE;
    TempHandle h;
    err = ErrnoOfStatus(OpenTemp(req, path, access, FILE_OPEN_FOR_BACKUP_INTENT, false, &h));
    if (!err) err = ApplySetAttr(path, attr, toSet, &h.info);
    if (!err) err = ErrnoOfStatus(table_.GetInformation(path, &after, &h.info));
    CloseTemp(&h);
  }
  if (!err) StatOfNode(after, node, st);
  return err;
}

// ---------------------------------------------------------------------------
// Folders, deletion, renaming

int Drive::MakeDirectory(fuse_req_t req, uint64_t parent, const char* name, fuse_entry_param* e) {
  if (!UsableName(name)) return EINVAL;
  AwaitAllClosed();
  std::string path;
  if (int err = ChildPath(parent, name, &path)) return err;
  DOKAN_FILE_INFO di = NewInfo(req);
  di.IsDirectory = 1;
  const NTSTATUS status =
      table_.Create(path, FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES | SYNCHRONIZE,
                    FILE_ATTRIBUTE_NORMAL, FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_CREATE,
                    FILE_DIRECTORY_FILE | kSync | FILE_OPEN_FOR_BACKUP_INTENT, &di);
  if (int err = ErrnoOfStatus(status)) return err;
  BY_HANDLE_FILE_INFORMATION info;
  if (table_.GetInformation(path, &info, &di) < 0 || !(info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))
    info = FolderNow();  // made, but not described: answer what was asked for
  table_.Cleanup(path, &di);
  table_.Close(path, &di);
  const uint64_t node = nodes_.Obtain(parent, name, true);
  if (!node) return ESTALE;
  EntryOf(node, info, e);
  return 0;
}

// Windows deletes by opening with delete-on-close, asking the file system
// whether the name may go (DeleteFile / DeleteDirectory) and closing the
// handle; the file system removes the name in Cleanup. A refused delete
// withdraws the open with CloseFile alone, so that no Cleanup ever runs
// with a delete that was refused.
int Drive::Unlink(fuse_req_t req, uint64_t parent, const char* name, bool directory) {
  if (!UsableName(name)) return ENOENT;
  AwaitAllClosed();
  std::string path;
  if (int err = ChildPath(parent, name, &path)) return err;
  TempHandle h;
  const ULONG options = FILE_DELETE_ON_CLOSE | FILE_OPEN_REPARSE_POINT |
                        (directory ? FILE_DIRECTORY_FILE | FILE_OPEN_FOR_BACKUP_INTENT
                                   : FILE_NON_DIRECTORY_FILE);
  NTSTATUS status = OpenTemp(req, path, kDeleteAccess, options, directory, &h);
  if (status < 0) return ErrnoOfStatus(status);
  status = directory ? table_.DeleteDirectory(path, &h.info) : table_.DeleteFile(path, &h.info);
  if (status < 0) {
    h.info.DeleteOnClose = 0;
    table_.Close(path, &h.info);
    return ErrnoOfStatus(status);
  }
  h.info.DeleteOnClose = 1;
  CloseTemp(&h);
  nodes_.Unlinked(parent, name);
  return 0;
}

// A folder cannot replace another folder here, which Windows answers with
// "access denied"; a program renaming onto a folder expects the POSIX
// answer for a folder that cannot be replaced.
int Drive::FolderTargetErrno(fuse_req_t req, const std::string& newPath, int err) {
  if (err != EACCES && err != EEXIST) return err;
  BY_HANDLE_FILE_INFORMATION target;
  if (QueryByPath(req, newPath, &target) != 0) return err;
  return (target.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) ? ENOTEMPTY : err;
}

int Drive::Rename(fuse_req_t req, uint64_t parent, const char* name, uint64_t newParent,
                  const char* newName, unsigned flags) {
  if (flags & ~RENAME_NOREPLACE) return EINVAL;  // no exchange, no whiteouts
  if (!UsableName(name) || !UsableName(newName)) return EINVAL;
  AwaitAllClosed();
  std::string path, newPath;
  if (int err = ChildPath(parent, name, &path)) return err;
  if (int err = ChildPath(newParent, newName, &newPath)) return err;
  TempHandle h;
  NTSTATUS status = OpenTemp(req, path, kDeleteAccess, FILE_OPEN_FOR_BACKUP_INTENT, false, &h);
  if (status >= 0) status = table_.Move(path, newPath, !(flags & RENAME_NOREPLACE), &h.info);
  CloseTemp(&h);
  if (int err = ErrnoOfStatus(status)) return FolderTargetErrno(req, newPath, err);
  nodes_.Renamed(parent, name, newParent, newName);
  return 0;
}

}  // namespace qb::dokan
