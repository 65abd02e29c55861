// DokanMapKernelToUserCreateFileFlags: the inverse of what CreateFileW does
// to its arguments before the request reaches a file system.
#include "platform/dokan/dokan.h"

namespace {

struct OptionFlag {
  ULONG option;
  DWORD flag;
};

constexpr OptionFlag kOptionFlags[] = {
    {FILE_WRITE_THROUGH, FILE_FLAG_WRITE_THROUGH},
    {FILE_SEQUENTIAL_ONLY, FILE_FLAG_SEQUENTIAL_SCAN},
    {FILE_RANDOM_ACCESS, FILE_FLAG_RANDOM_ACCESS},
    {FILE_NO_INTERMEDIATE_BUFFERING, FILE_FLAG_NO_BUFFERING},
    {FILE_OPEN_FOR_BACKUP_INTENT, FILE_FLAG_BACKUP_SEMANTICS},
    {FILE_DELETE_ON_CLOSE, FILE_FLAG_DELETE_ON_CLOSE},
    {FILE_OPEN_REPARSE_POINT, FILE_FLAG_OPEN_REPARSE_POINT},
    {FILE_OPEN_NO_RECALL, FILE_FLAG_OPEN_NO_RECALL},
};

DWORD AttributesAndFlags(ULONG fileAttributes, ULONG createOptions) {
  DWORD out = fileAttributes;
  for (const OptionFlag& row : kOptionFlags)
    if (createOptions & row.option) out |= row.flag;
  // CreateFileW asks for synchronous I/O unless the caller wanted overlapped.
  if (!(createOptions & (FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT)))
    out |= FILE_FLAG_OVERLAPPED;
  return out;
}

DWORD Disposition(ULONG createDisposition) {
  switch (createDisposition) {
    case FILE_CREATE: return CREATE_NEW;
    case FILE_OPEN: return OPEN_EXISTING;
    case FILE_OPEN_IF: return OPEN_ALWAYS;
    case FILE_OVERWRITE: return TRUNCATE_EXISTING;
    case FILE_SUPERSEDE:
    case FILE_OVERWRITE_IF: return CREATE_ALWAYS;
    default: return 0;
  }
}

// The generic rights come back when every right they stand for is there;
// the specific rights they cover are then removed.
ACCESS_MASK Access(ACCESS_MASK desired) {
  ACCESS_MASK out = desired;
  const bool read = (desired & FILE_GENERIC_READ) == FILE_GENERIC_READ;
  const bool write = (desired & FILE_GENERIC_WRITE) == FILE_GENERIC_WRITE;
  const bool execute = (desired & FILE_GENERIC_EXECUTE) == FILE_GENERIC_EXECUTE;
  const bool all = (desired & FILE_ALL_ACCESS) == FILE_ALL_ACCESS;
  if (read) out = (out & ~FILE_GENERIC_READ) | GENERIC_READ;
  if (write) out = (out & ~FILE_GENERIC_WRITE) | GENERIC_WRITE;
  if (execute) out = (out & ~FILE_GENERIC_EXECUTE) | GENERIC_EXECUTE;
  if (all) out = (out & ~FILE_ALL_ACCESS) | GENERIC_ALL;
  return out;
}

}  // namespace

void DokanMapKernelToUserCreateFileFlags(ACCESS_MASK DesiredAccess, ULONG FileAttributes,
                                         ULONG CreateOptions, ULONG CreateDisposition,
                                         ACCESS_MASK* outDesiredAccess,
                                         DWORD* outFileAttributesAndFlags,
                                         DWORD* outCreationDisposition) {
  if (outDesiredAccess) *outDesiredAccess = Access(DesiredAccess);
  if (outFileAttributesAndFlags)
    *outFileAttributesAndFlags = AttributesAndFlags(FileAttributes, CreateOptions);
  if (outCreationDisposition) *outCreationDisposition = Disposition(CreateDisposition);
}
