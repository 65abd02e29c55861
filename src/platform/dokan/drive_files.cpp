// Requests on open files: open, create, read, write, flush and the end of
// an open.
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

namespace {

ContentStamp StampOf(const BY_HANDLE_FILE_INFORMATION& info) {
  return {SizeOf(info), info.ftCreationTime.Value(), info.ftLastWriteTime.Value()};
}

}  // namespace

int Drive::OpenFile(fuse_req_t req, uint64_t node, int flags, Open** out, bool* keepData) {
  AwaitClosed(node);
  std::string path;
  if (int err = NamedPathOf(node, &path)) return err;
  auto open = std::make_unique<Open>();
  open->node = node;
  open->info = NewInfo(req);
  open->info.WriteToEndOfFile = (flags & O_APPEND) ? 1 : 0;
  const ULONG disposition = (flags & O_TRUNC) ? FILE_OVERWRITE : FILE_OPEN;
  const NTSTATUS status = table_.Create(path, AccessOfFlags(flags), 0, kShareAll, disposition,
                                        OptionsOfFlags(flags), &open->info);
  if (int err = ErrnoOfStatus(status)) return err;
  // The kernel keeps the file's cached data only while the file system
  // reports the content unchanged (same size and times) since the last
  // open; a change made behind the kernel's back comes through
  // InvalidatePath, which drops the data and the stamp.
  BY_HANDLE_FILE_INFORMATION info;
  *keepData = !(flags & O_TRUNC) && table_.GetInformation(path, &info, &open->info) == STATUS_SUCCESS &&
              nodes_.SameContent(node, StampOf(info));
  if (flags & O_TRUNC) nodes_.ForgetContent(node);
  *out = RegisterFileOpen(std::move(open), flags);
  return 0;
}

int Drive::CreateFile(fuse_req_t req, uint64_t parent, const char* name, mode_t mode, int flags,
                      fuse_entry_param* e, Open** out) {
  if (!UsableName(name)) return EINVAL;
  AwaitClosed(nodes_.Find(parent, name));
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
  nodes_.ForgetContent(node);
  open->node = node;
  EntryOf(node, info, e);
  *out = RegisterFileOpen(std::move(open), flags);
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
  if (done) open->unflushed.store(true);
  return 0;
}

int Drive::Flush(fuse_req_t req, Open* open) {
  AwaitClosed(open->node);  // another open's upload of the file comes first
  std::string path;
  if (int err = PathOf(open->node, &path)) return err;
  DOKAN_FILE_INFO di = Begin(req, open);
  const NTSTATUS status = table_.Flush(path, &di);
  End(open, di);
  return ErrnoOfStatus(status);
}

void Drive::Release(Open* open) {
  if (!Unregister(open)) return;  // already closed by the teardown
  QueueClose(open);
}

void Drive::Abandon(Open* open, bool countedLookup) {
  if (countedLookup) nodes_.Forget(open->node, 1);
  Release(open);
}

}  // namespace qb::dokan
