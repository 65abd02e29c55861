// The kernel's requests as the calls that Windows makes for the same user
// action. Every request that needs a handle opens one with ZwCreateFile and
// ends it with Cleanup and CloseFile, as the I/O manager does.
#include <fcntl.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <cstring>

#include "common/strings.h"
#include "platform/dokan/drive.h"
#include "platform/dokan/status_errno.h"
#include "platform/system/clock.h"

namespace qb::dokan {
namespace {

constexpr double kCacheSeconds = 1.0;
constexpr ULONG kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr ULONG kSync = FILE_SYNCHRONOUS_IO_NONALERT;
constexpr ACCESS_MASK kQueryAccess = FILE_READ_ATTRIBUTES | SYNCHRONIZE;
constexpr ACCESS_MASK kDeleteAccess = DELETE | FILE_READ_ATTRIBUTES | SYNCHRONIZE;
constexpr ACCESS_MASK kListAccess = FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES | SYNCHRONIZE;

bool IsDot(const std::string& name) { return name == "." || name == ".."; }

// A name that Windows could hold: no separator of either kind.
bool UsableName(const char* name) {
  return name && *name && !std::strchr(name, '\\') && !std::strchr(name, '/');
}

ACCESS_MASK AccessOfFlags(int flags) {
  ACCESS_MASK access = 0;
  const int mode = flags & O_ACCMODE;
  if (mode == O_RDONLY || mode == O_RDWR) access |= FILE_GENERIC_READ;
  if (mode == O_WRONLY || mode == O_RDWR) {
    access |= FILE_GENERIC_WRITE;
    // An appending open asks for appending only, as Windows programs do.
    if (flags & O_APPEND) access &= ~FILE_WRITE_DATA;
  }
  return access;
}

ULONG OptionsOfFlags(int flags) {
  ULONG options = FILE_NON_DIRECTORY_FILE | kSync;
  if (flags & (O_SYNC | O_DSYNC)) options |= FILE_WRITE_THROUGH;
#ifdef O_DIRECT
  if (flags & O_DIRECT) options |= FILE_NO_INTERMEDIATE_BUFFERING;
#endif
  return options;
}

ULONG CreateDispositionOfFlags(int flags) {
  if (flags & O_EXCL) return FILE_CREATE;
  if (flags & O_TRUNC) return FILE_OVERWRITE_IF;
  return FILE_OPEN_IF;
}

// A create that found the file answers a collision, which Windows turns
// into success with ERROR_ALREADY_EXISTS for CREATE_ALWAYS and OPEN_ALWAYS.
NTSTATUS CreateOutcome(NTSTATUS status, ULONG disposition) {
  if (status == STATUS_OBJECT_NAME_COLLISION &&
      (disposition == FILE_OPEN_IF || disposition == FILE_OVERWRITE_IF ||
       disposition == FILE_SUPERSEDE))
    return STATUS_SUCCESS;
  return status;
}

BY_HANDLE_FILE_INFORMATION FolderNow() {
  BY_HANDLE_FILE_INFORMATION info{};
  info.dwFileAttributes = FILE_ATTRIBUTE_DIRECTORY;
  info.ftCreationTime = info.ftLastAccessTime = info.ftLastWriteTime =
      qb::sys::GetSystemTimeAsFileTime();
  return info;
}

}  // namespace

// ---------------------------------------------------------------------------
// Helpers

DOKAN_FILE_INFO Drive::NewInfo(fuse_req_t req) const {
  DOKAN_FILE_INFO info{};
  info.DokanOptions = options_;
  info.SynchronousIo = 1;
  if (req) info.ProcessId = static_cast<ULONG>(fuse_req_ctx(req)->pid);
  return info;
}

DOKAN_FILE_INFO Drive::Begin(fuse_req_t req, Open* open) const {
  std::lock_guard lock(open->mutex);
  DOKAN_FILE_INFO info = open->info;
  if (req) info.ProcessId = static_cast<ULONG>(fuse_req_ctx(req)->pid);
  return info;
}

void Drive::End(Open* open, const DOKAN_FILE_INFO& info) const {
  std::lock_guard lock(open->mutex);
  open->info.Context = info.Context;
  open->info.IsDirectory = info.IsDirectory;
  open->info.DeleteOnClose = info.DeleteOnClose;
}

int Drive::PathOf(uint64_t node, std::string* path) const {
  auto p = nodes_.PathOf(node);
  if (!p) return ESTALE;
  *path = std::move(*p);
  return 0;
}

int Drive::ChildPath(uint64_t parent, const char* name, std::string* path) const {
  std::string parentPath;
  if (int err = PathOf(parent, &parentPath)) return err;
  *path = NodeTable::JoinPath(parentPath, name);
  if (qb::Utf16Length(*path) >= qb::kMaxPath) return ENAMETOOLONG;
  return 0;
}

NTSTATUS Drive::OpenTemp(fuse_req_t req, const std::string& path, ACCESS_MASK access,
                         ULONG options, bool directory, TempHandle* handle) {
  handle->path = path;
  handle->info = NewInfo(req);
  handle->info.IsDirectory = directory ? 1 : 0;
  handle->info.DeleteOnClose = (options & FILE_DELETE_ON_CLOSE) ? 1 : 0;
  const NTSTATUS status = table_.Create(path, access, directory ? FILE_ATTRIBUTE_DIRECTORY : 0,
                                        kShareAll, FILE_OPEN, options | kSync, &handle->info);
  handle->open = status >= 0;
  return status;
}

void Drive::CloseTemp(TempHandle* handle) {
  if (!handle->open) return;
  table_.Cleanup(handle->path, &handle->info);
  table_.Close(handle->path, &handle->info);
  handle->open = false;
}

int Drive::QueryByPath(fuse_req_t req, const std::string& path, BY_HANDLE_FILE_INFORMATION* out) {
  TempHandle h;
  NTSTATUS status = OpenTemp(req, path, kQueryAccess, 0, false, &h);
  if (status >= 0) status = table_.GetInformation(path, out, &h.info);
  CloseTemp(&h);
  return ErrnoOfStatus(status);
}

void Drive::EntryOf(uint64_t node, const BY_HANDLE_FILE_INFORMATION& info,
                    fuse_entry_param* e) const {
  *e = {};
  e->ino = node;
  e->attr_timeout = kCacheSeconds;
  e->entry_timeout = kCacheSeconds;
  StatOf(info, node, owner_, &e->attr);
}

// ---------------------------------------------------------------------------
// Names and attributes

int Drive::Lookup(fuse_req_t req, uint64_t parent, const char* name, fuse_entry_param* e) {
  if (!UsableName(name)) return ENOENT;
  std::string path;
  if (int err = ChildPath(parent, name, &path)) return err;
  BY_HANDLE_FILE_INFORMATION info;
  if (int err = QueryByPath(req, path, &info)) return err;
  const uint64_t node = nodes_.Obtain(parent, name, true);
  if (!node) return ESTALE;
  EntryOf(node, info, e);
  return 0;
}

int Drive::GetAttr(fuse_req_t req, uint64_t node, Open* open, struct stat* st) {
  std::string path;
  if (int err = PathOf(node, &path)) return err;
  BY_HANDLE_FILE_INFORMATION info;
  if (open) {
    DOKAN_FILE_INFO di = Begin(req, open);
    const NTSTATUS status = table_.GetInformation(path, &info, &di);
    End(open, di);
    if (int err = ErrnoOfStatus(status)) return err;
  } else if (int err = QueryByPath(req, path, &info)) {
    return err;
  }
  StatOf(info, node, owner_, st);
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
  std::string path;
  if (int err = PathOf(node, &path)) return err;
  BY_HANDLE_FILE_INFORMATION after;
  int err;
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
  if (!err) StatOf(after, node, owner_, st);
  return err;
}

// ---------------------------------------------------------------------------
// Folders, deletion, renaming

int Drive::MakeDirectory(fuse_req_t req, uint64_t parent, const char* name, fuse_entry_param* e) {
  if (!UsableName(name)) return EINVAL;
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

int Drive::Rename(fuse_req_t req, uint64_t parent, const char* name, uint64_t newParent,
                  const char* newName, unsigned flags) {
  if (flags & ~RENAME_NOREPLACE) return EINVAL;  // no exchange, no whiteouts
  if (!UsableName(name) || !UsableName(newName)) return EINVAL;
  std::string path, newPath;
  if (int err = ChildPath(parent, name, &path)) return err;
  if (int err = ChildPath(newParent, newName, &newPath)) return err;
  TempHandle h;
  NTSTATUS status = OpenTemp(req, path, kDeleteAccess, FILE_OPEN_FOR_BACKUP_INTENT, false, &h);
  if (status >= 0) status = table_.Move(path, newPath, !(flags & RENAME_NOREPLACE), &h.info);
  CloseTemp(&h);
  if (int err = ErrnoOfStatus(status)) return err;
  nodes_.Renamed(parent, name, newParent, newName);
  return 0;
}

// ---------------------------------------------------------------------------
// Files

int Drive::OpenFile(fuse_req_t req, uint64_t node, int flags, Open** out) {
  std::string path;
  if (int err = PathOf(node, &path)) return err;
  auto open = std::make_unique<Open>();
  open->node = node;
  open->info = NewInfo(req);
  open->info.WriteToEndOfFile = (flags & O_APPEND) ? 1 : 0;
  const ULONG disposition = (flags & O_TRUNC) ? FILE_OVERWRITE : FILE_OPEN;
  const NTSTATUS status = table_.Create(path, AccessOfFlags(flags), 0, kShareAll, disposition,
                                        OptionsOfFlags(flags), &open->info);
  if (int err = ErrnoOfStatus(status)) return err;
  *out = Register(std::move(open));
  return 0;
}

int Drive::CreateFile(fuse_req_t req, uint64_t parent, const char* name, mode_t mode, int flags,
                      fuse_entry_param* e, Open** out) {
  if (!UsableName(name)) return EINVAL;
  std::string path;
  if (int err = ChildPath(parent, name, &path)) return err;
  auto open = std::make_unique<Open>();
  open->info = NewInfo(req);
  open->info.WriteToEndOfFile = (flags & O_APPEND) ? 1 : 0;
  const ULONG disposition = CreateDispositionOfFlags(flags);
  // A mode without write bits makes a read-only file; the new handle may
  // still write, on Linux as on Windows.
  const DWORD attributes = (mode & 0222) ? FILE_ATTRIBUTE_NORMAL : FILE_ATTRIBUTE_READONLY;
  NTSTATUS status = table_.Create(path, AccessOfFlags(flags), attributes, kShareAll, disposition,
                                  OptionsOfFlags(flags), &open->info);
  if (int err = ErrnoOfStatus(CreateOutcome(status, disposition))) return err;
  BY_HANDLE_FILE_INFORMATION info;
  status = table_.GetInformation(path, &info, &open->info);
  if (int err = ErrnoOfStatus(status)) {
    table_.Cleanup(path, &open->info);
    table_.Close(path, &open->info);
    return err;
  }
  const uint64_t node = nodes_.Obtain(parent, name, true);
  open->node = node;
  EntryOf(node, info, e);
  *out = Register(std::move(open));
  return 0;
}

int Drive::Read(fuse_req_t req, Open* open, size_t size, off_t offset, std::vector<char>* out) {
  std::string path;
  if (int err = PathOf(open->node, &path)) return err;
  out->resize(size);
  DWORD read = 0;
  DOKAN_FILE_INFO di = Begin(req, open);
  NTSTATUS status = table_.Read(path, out->data(), static_cast<DWORD>(size), &read, offset, &di);
  End(open, di);
  if (status == STATUS_END_OF_FILE) status = STATUS_SUCCESS, read = 0;
  if (int err = ErrnoOfStatus(status)) return err;
  out->resize(std::min<size_t>(read, size));
  return 0;
}

int Drive::Write(fuse_req_t req, Open* open, const char* buffer, size_t size, off_t offset,
                 size_t* written) {
  std::string path;
  if (int err = PathOf(open->node, &path)) return err;
  DWORD done = 0;
  DOKAN_FILE_INFO di = Begin(req, open);
  const NTSTATUS status =
      table_.Write(path, buffer, static_cast<DWORD>(size), &done, offset, &di);
  End(open, di);
  if (int err = ErrnoOfStatus(status)) return err;
  *written = std::min<size_t>(done, size);
  return 0;
}

int Drive::Flush(fuse_req_t req, Open* open) {
  std::string path;
  if (int err = PathOf(open->node, &path)) return err;
  DOKAN_FILE_INFO di = Begin(req, open);
  const NTSTATUS status = table_.Flush(path, &di);
  End(open, di);
  return ErrnoOfStatus(status);
}

void Drive::Release(Open* open) {
  {
    std::lock_guard lock(opensMutex_);
    if (!opens_.erase(open)) return;  // already closed by the teardown
  }
  std::string path;
  if (PathOf(open->node, &path) != 0) path = "\\";
  table_.Cleanup(path, &open->info);
  table_.Close(path, &open->info);
  delete open;
}

void Drive::Abandon(Open* open, bool countedLookup) {
  if (countedLookup) nodes_.Forget(open->node, 1);
  Release(open);
}

// ---------------------------------------------------------------------------
// Folder listing

int Drive::OpenDirectory(fuse_req_t req, uint64_t node, Open** out) {
  std::string path;
  if (int err = PathOf(node, &path)) return err;
  auto open = std::make_unique<Open>();
  open->node = node;
  open->directory = true;
  open->info = NewInfo(req);
  open->info.IsDirectory = 1;
  const NTSTATUS status =
      table_.Create(path, kListAccess, 0, kShareAll, FILE_OPEN,
                    FILE_DIRECTORY_FILE | kSync | FILE_OPEN_FOR_BACKUP_INTENT, &open->info);
  if (int err = ErrnoOfStatus(status)) return err;
  *out = Register(std::move(open));
  return 0;
}

int Drive::ReadDirectory(fuse_req_t req, Open* open, size_t size, off_t offset, bool plus,
                         std::vector<char>* buffer) {
  std::string path;
  if (int err = PathOf(open->node, &path)) return err;
  if (offset == 0) {
    std::vector<WIN32_FIND_DATAW> found;
    DOKAN_FILE_INFO di = Begin(req, open);
    const NTSTATUS status = table_.Find(path, &found, &di);
    End(open, di);
    if (int err = ErrnoOfStatus(status)) return err;
    std::vector<WIN32_FIND_DATAW> listing(2);
    listing[0].cFileName = ".";
    listing[1].cFileName = "..";
    listing[0].dwFileAttributes = listing[1].dwFileAttributes = FILE_ATTRIBUTE_DIRECTORY;
    for (WIN32_FIND_DATAW& d : found)
      if (!IsDot(d.cFileName) && UsableName(d.cFileName.c_str())) listing.push_back(std::move(d));
    std::lock_guard lock(open->mutex);
    open->listing = std::move(listing);
  }
  std::vector<WIN32_FIND_DATAW> listing;
  {
    std::lock_guard lock(open->mutex);
    listing = open->listing;
  }
  buffer->resize(size);
  size_t used = 0;
  const uint64_t parent = nodes_.ParentOf(open->node).value_or(NodeTable::kRoot);
  for (size_t i = static_cast<size_t>(offset); i < listing.size(); ++i) {
    const WIN32_FIND_DATAW& d = listing[i];
    const bool dot = IsDot(d.cFileName);
    uint64_t ino = d.cFileName == "." ? open->node : d.cFileName == ".." ? parent : 0;
    if (!dot) ino = nodes_.Find(open->node, d.cFileName);
    fuse_entry_param e{};
    StatOf(d, ino, owner_, &e.attr);
    size_t need;
    if (plus && !dot) {
      // The kernel counts a lookup for every entry that it takes.
      const uint64_t node = nodes_.Obtain(open->node, d.cFileName, false);
      e.ino = node;
      e.attr.st_ino = node;
      e.attr_timeout = e.entry_timeout = kCacheSeconds;
      need = fuse_add_direntry_plus(req, buffer->data() + used, size - used, d.cFileName.c_str(),
                                    &e, static_cast<off_t>(i + 1));
      if (need > size - used) {
        nodes_.Forget(node, 0);  // drop it again if nothing else holds it
        break;
      }
      nodes_.Obtain(open->node, d.cFileName, true);
    } else if (plus) {
      need = fuse_add_direntry_plus(req, buffer->data() + used, size - used, d.cFileName.c_str(),
                                    &e, static_cast<off_t>(i + 1));
      if (need > size - used) break;
    } else {
      if (!e.attr.st_ino) e.attr.st_ino = ino ? ino : 0xffffffffu;
      need = fuse_add_direntry(req, buffer->data() + used, size - used, d.cFileName.c_str(),
                               &e.attr, static_cast<off_t>(i + 1));
      if (need > size - used) break;
    }
    used += need;
  }
  buffer->resize(used);
  return 0;
}

// ---------------------------------------------------------------------------
// Volume

int Drive::StatFs(fuse_req_t req, struct statvfs* st) {
  DOKAN_FILE_INFO di = NewInfo(req);
  DiskSpace space;
  // A drive whose size is unknown still lists: df shows what was filled.
  table_.DiskFreeSpace(&space, &di);
  VolumeInfo volume;
  table_.Volume(&volume, &di);
  const unsigned long block = options_->AllocationUnitSize ? options_->AllocationUnitSize : 4096;
  *st = {};
  st->f_bsize = block;
  st->f_frsize = block;
  st->f_blocks = space.totalBytes / block;
  st->f_bfree = space.totalFreeBytes / block;
  st->f_bavail = space.freeBytesAvailable / block;
  st->f_files = 1u << 20;
  st->f_ffree = 1u << 20;
  st->f_favail = 1u << 20;
  st->f_namemax = volume.maximumComponentLength ? volume.maximumComponentLength : 255;
  return 0;
}

}  // namespace qb::dokan
