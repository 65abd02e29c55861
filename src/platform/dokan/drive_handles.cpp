// The handles of the drive: the per-open record and the handles that live
// for one request. Every request that needs a handle opens one with
// ZwCreateFile and ends it with Cleanup and CloseFile, as the I/O manager
// does.
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

int Drive::NamedPathOf(uint64_t node, std::string* path) const {
  bool linked = false;
  auto p = nodes_.PathOf(node, &linked);
  if (!p) return ESTALE;
  if (!linked) return ENOENT;  // the name leads elsewhere now, or nowhere
  *path = std::move(*p);
  return 0;
}

int Drive::InfoOfOpen(fuse_req_t req, uint64_t node, Open* open,
                      BY_HANDLE_FILE_INFORMATION* info) {
  const std::string path = PathOrRoot(node);
  DOKAN_FILE_INFO di = Begin(req, open);
  const NTSTATUS status = table_.GetInformation(path, info, &di);
  End(open, di);
  return ErrnoOfStatus(status);
}

void Drive::StatOfNode(const BY_HANDLE_FILE_INFORMATION& info, uint64_t node,
                       struct stat* st) const {
  StatOf(info, node, owner_, st);
  bool linked = true;
  if (nodes_.PathOf(node, &linked) && !linked) st->st_nlink = 0;
}

std::string Drive::PathOrRoot(uint64_t node) const {
  return nodes_.PathOf(node).value_or(std::string(1, '\\'));
}

int Drive::ChildPath(uint64_t parent, const char* name, std::string* path) const {
  std::string parentPath;
  if (int err = NamedPathOf(parent, &parentPath)) return err;
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

}  // namespace qb::dokan
