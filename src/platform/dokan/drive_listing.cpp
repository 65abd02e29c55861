// Folder listings and the volume's figures.
#include <fcntl.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "common/strings.h"
#include "platform/dokan/drive.h"
#include "platform/dokan/request_flags.h"
#include "platform/dokan/status_errno.h"
#include "platform/system/clock.h"

namespace qb::dokan {

using namespace requests;

int Drive::OpenDirectory(fuse_req_t req, uint64_t node, Open** out) {
  AwaitAllClosed();  // a listing shows what the ends of earlier opens did
  std::string path;
  if (int err = NamedPathOf(node, &path)) return err;
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

int Drive::TakeListing(fuse_req_t req, Open* open, const std::string& path) {
  std::vector<WIN32_FIND_DATAW> found;
  DOKAN_FILE_INFO di = Begin(req, open);
  const NTSTATUS status = table_.Find(path, &found, &di);
  End(open, di);
  if (int err = ErrnoOfStatus(status)) return err;
  auto listing = std::make_shared<Listing>(2);
  (*listing)[0].cFileName = ".";
  (*listing)[1].cFileName = "..";
  (*listing)[0].dwFileAttributes = (*listing)[1].dwFileAttributes = FILE_ATTRIBUTE_DIRECTORY;
  for (WIN32_FIND_DATAW& d : found)
    if (!IsDot(d.cFileName) && UsableName(d.cFileName.c_str())) listing->push_back(std::move(d));
  std::lock_guard lock(open->mutex);
  open->listing = std::move(listing);
  return 0;
}

// One entry into `out` (room `room`); 0 when it does not fit. With `plus`
// the entry carries its attributes and the kernel counts a lookup of it.
size_t Drive::AddEntry(fuse_req_t req, Open* open, const WIN32_FIND_DATAW& d, off_t next,
                       bool plus, char* out, size_t room) {
  const char* name = d.cFileName.c_str();
  fuse_entry_param e{};
  if (IsDot(d.cFileName)) {
    // The root is its own parent (its node's parent is 0, which no
    // listing may show: a zero inode hides the entry).
    const uint64_t parent = nodes_.ParentOf(open->node).value_or(0);
    const uint64_t ino = d.cFileName == "." ? open->node : parent ? parent : NodeTable::kRoot;
    StatOf(d, ino, owner_, &e.attr);
    const size_t need = plus ? fuse_add_direntry_plus(req, out, room, name, &e, next)
                             : fuse_add_direntry(req, out, room, name, &e.attr, next);
    return need > room ? 0 : need;
  }
  if (!plus) {
    const uint64_t known = nodes_.Find(open->node, d.cFileName);
    StatOf(d, known ? known : 0xffffffffu, owner_, &e.attr);
    const size_t need = fuse_add_direntry(req, out, room, name, &e.attr, next);
    return need > room ? 0 : need;
  }
  const uint64_t node = nodes_.Obtain(open->node, d.cFileName, false, true);
  e.ino = node;
  e.attr_timeout = e.entry_timeout = kCacheSeconds;
  StatOf(d, node, owner_, &e.attr);
  const size_t need = fuse_add_direntry_plus(req, out, room, name, &e, next);
  if (need > room) {
    nodes_.Forget(node, 0);  // drops it again unless something holds it
    return 0;
  }
  nodes_.Obtain(open->node, d.cFileName, true);
  return need;
}

int Drive::ReadDirectory(fuse_req_t req, Open* open, size_t size, off_t offset, bool plus,
                         std::vector<char>* buffer) {
  if (offset == 0) AwaitAllClosed();
  std::string path;
  if (int err = PathOf(open->node, &path)) return err;
  if (offset == 0)
    if (int err = TakeListing(req, open, path)) return err;
  std::shared_ptr<const Listing> listing;
  {
    std::lock_guard lock(open->mutex);
    listing = open->listing;
  }
  if (!listing) return 0;  // a folder read from the middle without a start
  buffer->resize(size);
  size_t used = 0;
  for (size_t i = static_cast<size_t>(offset); i < listing->size(); ++i) {
    const size_t added = AddEntry(req, open, (*listing)[i], static_cast<off_t>(i + 1), plus,
                                  buffer->data() + used, size - used);
    if (!added) break;
    used += added;
  }
  buffer->resize(used);
  return 0;
}

void Drive::Started() {
  DOKAN_FILE_INFO info{};
  info.DokanOptions = options_;
  VolumeInfo volume;
  table_.Volume(&volume, &info);
}

int Drive::StatFs(fuse_req_t req, uint64_t node, struct statvfs* st) {
  AwaitAllClosed();  // the free space after the uploads of earlier closes
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
  // A name must fit the file system and keep the path below 260 units;
  // counted in units, the limit holds for bytes as well.
  const std::string folder = PathOrRoot(node);
  const size_t taken = qb::Utf16Length(folder) + (folder == "\\" ? 0 : 1);
  const size_t room = taken + 1 < qb::kMaxPath ? qb::kMaxPath - 1 - taken : 0;
  const size_t own = volume.maximumComponentLength ? volume.maximumComponentLength : 255;
  st->f_namemax = std::min(own, room);
  return 0;
}

}  // namespace qb::dokan
