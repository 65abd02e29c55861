#include "platform/dokan/status_errno.h"

#include <cerrno>
#include <cstddef>

namespace qb::dokan {
namespace {

struct StatusErrno {
  NTSTATUS status;
  int error;
};

// Kept in one place so that every answer of the drive maps the same way.
constexpr StatusErrno kTable[] = {
    {STATUS_OBJECT_NAME_NOT_FOUND, ENOENT},
    {STATUS_OBJECT_PATH_NOT_FOUND, ENOENT},
    {STATUS_NO_SUCH_FILE, ENOENT},
    {STATUS_DELETE_PENDING, ENOENT},
    {STATUS_OBJECT_NAME_COLLISION, EEXIST},
    {STATUS_ACCESS_DENIED, EACCES},
    {STATUS_CANNOT_DELETE, EACCES},
    {STATUS_PRIVILEGE_NOT_HELD, EPERM},
    {STATUS_MEDIA_WRITE_PROTECTED, EROFS},
    {STATUS_DISK_FULL, ENOSPC},
    {STATUS_DIRECTORY_NOT_EMPTY, ENOTEMPTY},
    {STATUS_NOT_A_DIRECTORY, ENOTDIR},
    {STATUS_FILE_IS_A_DIRECTORY, EISDIR},
    {STATUS_DEVICE_NOT_READY, EBUSY},
    {STATUS_DEVICE_BUSY, EBUSY},
    {STATUS_SHARING_VIOLATION, EBUSY},
    {STATUS_NOT_SUPPORTED, EOPNOTSUPP},
    // Not ENOSYS: the kernel would take that as "never ask again".
    {STATUS_NOT_IMPLEMENTED, EOPNOTSUPP},
    {STATUS_INVALID_DEVICE_REQUEST, EOPNOTSUPP},
    {STATUS_OBJECT_NAME_INVALID, EINVAL},
    {STATUS_INVALID_PARAMETER, EINVAL},
    {STATUS_NAME_TOO_LONG, ENAMETOOLONG},
    {STATUS_NOT_SAME_DEVICE, EXDEV},
    {STATUS_NO_MEMORY, ENOMEM},
    {STATUS_INSUFFICIENT_RESOURCES, ENOMEM},
    {STATUS_IO_TIMEOUT, ETIMEDOUT},
    {STATUS_INVALID_HANDLE, EBADF},
    {STATUS_FILE_CLOSED, EBADF},
    {STATUS_NO_SUCH_DEVICE, ENODEV},
    {STATUS_BUFFER_TOO_SMALL, ERANGE},
    {STATUS_BUFFER_OVERFLOW, ERANGE},
    {STATUS_END_OF_FILE, EIO},
    {STATUS_UNSUCCESSFUL, EIO},
    {STATUS_INTERNAL_ERROR, EIO},
};

}  // namespace

int ErrnoOfStatus(NTSTATUS status) {
  if (status >= 0) return 0;
  for (const StatusErrno& row : kTable)
    if (row.status == status) return row.error;
  return EIO;
}

}  // namespace qb::dokan
