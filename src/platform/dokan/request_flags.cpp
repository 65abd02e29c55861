#include "platform/dokan/request_flags.h"

#include <fcntl.h>

#include <cstring>

#include "platform/system/clock.h"

namespace qb::dokan::requests {

bool IsDot(const std::string& name) { return name == "." || name == ".."; }

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

}  // namespace qb::dokan::requests
