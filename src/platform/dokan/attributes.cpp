#include "platform/dokan/attributes.h"

#include "platform/system/clock.h"

namespace qb::dokan {
namespace {

// The preferred I/O size: programs (cp, cat) size their buffers by it, and
// each write(2) reaches the file system in one request of up to this size
// (the session's limit), instead of the kernel's default of 128 KiB.
constexpr blksize_t kBlockSize = 1 << 20;

void Fill(DWORD attributes, uint64_t size, const FILETIME& access, const FILETIME& write,
          uint64_t ino, DWORD links, const Owner& owner, struct stat* st) {
  *st = {};
  const bool dir = attributes & FILE_ATTRIBUTE_DIRECTORY;
  mode_t mode = dir ? (S_IFDIR | 0755) : (S_IFREG | 0644);
  if (attributes & FILE_ATTRIBUTE_READONLY) mode &= ~mode_t{0222};
  st->st_mode = mode;
  st->st_ino = ino;
  st->st_nlink = dir ? 2 : (links ? links : 1);
  st->st_uid = owner.uid;
  st->st_gid = owner.gid;
  st->st_size = dir ? 0 : static_cast<off_t>(size);
  st->st_blksize = kBlockSize;
  st->st_blocks = static_cast<blkcnt_t>((size + 511) / 512);
  st->st_atim = qb::sys::FileTimeToTimespec(access);
  st->st_mtim = qb::sys::FileTimeToTimespec(write);
  st->st_ctim = st->st_mtim;  // Windows keeps no change time apart
}

}  // namespace

int64_t SizeOf(const BY_HANDLE_FILE_INFORMATION& info) {
  return static_cast<int64_t>((uint64_t{info.nFileSizeHigh} << 32) | info.nFileSizeLow);
}

void StatOf(const BY_HANDLE_FILE_INFORMATION& info, uint64_t ino, const Owner& owner,
            struct stat* st) {
  Fill(info.dwFileAttributes, static_cast<uint64_t>(SizeOf(info)), info.ftLastAccessTime,
       info.ftLastWriteTime, ino, info.nNumberOfLinks, owner, st);
}

void StatOf(const WIN32_FIND_DATAW& data, uint64_t ino, const Owner& owner, struct stat* st) {
  Fill(data.dwFileAttributes, static_cast<uint64_t>(data.FileSize()), data.ftLastAccessTime,
       data.ftLastWriteTime, ino, 1, owner, st);
}

DWORD AttributesForMode(DWORD attributes, mode_t mode) {
  if (mode & 0222) return attributes & ~DWORD{FILE_ATTRIBUTE_READONLY};
  return attributes | FILE_ATTRIBUTE_READONLY;
}

FILETIME FileTimeOf(const struct timespec& ts) {
  return qb::sys::UnixToFileTime(ts.tv_sec, ts.tv_nsec);
}

}  // namespace qb::dokan
