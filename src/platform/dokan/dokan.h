#pragma once
// The user-mode file-system library of the drive, under its Dokan names.
// A drive letter X is the mount point <drives root>/X; every request that the
// kernel sends for it reaches the operation table as the calls that Windows
// would make for the same request (see docs/dokan.md for the exact order).
//
// Text is UTF-8 throughout: file names, paths and the volume texts. Paths on
// the drive keep the backslash form ("\DCIM\a.jpg"); the root is "\".
// Buffer sizes named "...Size" count UTF-16 units, as on Windows; the buffers
// behind them hold three bytes per unit plus the terminating zero.
#include <cstddef>
#include <cstdint>

#include "directory/find_data.h"  // WIN32_FIND_DATAW, FILE_ATTRIBUTE_*
#include "platform/system/codes.h"
#include "platform/system/wintypes.h"
#include "platform/system/wpd_keys.h"  // GENERIC_READ, GENERIC_WRITE

using BOOL = int;
using BOOLEAN = uint8_t;
using UCHAR = uint8_t;
using USHORT = uint16_t;
using ULONG = uint32_t;
using ULONG64 = uint64_t;
using LONGLONG = int64_t;
using ULONGLONG = uint64_t;
using ACCESS_MASK = uint32_t;
using LPCWSTR = const char*;  // UTF-8 here
using LPWSTR = char*;         // UTF-8 here
using LPDWORD = DWORD*;
using LPVOID = void*;
using LPCVOID = const void*;
using PULONGLONG = ULONGLONG*;
using PWIN32_FIND_DATAW = WIN32_FIND_DATAW*;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

// ---------------------------------------------------------------------------
// Versions and results

constexpr ULONG DOKAN_VERSION = 231;
constexpr ULONG DOKAN_MINIMUM_COMPATIBLE_VERSION = 200;
constexpr ULONG DOKAN_DRIVER_VERSION = 400;

constexpr int DOKAN_SUCCESS = 0;
constexpr int DOKAN_ERROR = -1;
constexpr int DOKAN_DRIVE_LETTER_ERROR = -2;
constexpr int DOKAN_DRIVER_INSTALL_ERROR = -3;
constexpr int DOKAN_START_ERROR = -4;
constexpr int DOKAN_MOUNT_ERROR = -5;
constexpr int DOKAN_MOUNT_POINT_ERROR = -6;
constexpr int DOKAN_VERSION_ERROR = -7;

// ---------------------------------------------------------------------------
// Options

constexpr ULONG DOKAN_OPTION_DEBUG = 0x1;          // trace every kernel request
constexpr ULONG DOKAN_OPTION_STDERR = 0x2;         // accepted, same as DEBUG here
constexpr ULONG DOKAN_OPTION_ALT_STREAM = 0x4;     // accepted, no streams on Linux
constexpr ULONG DOKAN_OPTION_WRITE_PROTECT = 0x8;  // read-only mount
constexpr ULONG DOKAN_OPTION_NETWORK = 0x10;       // drive type "remote"
constexpr ULONG DOKAN_OPTION_REMOVABLE = 0x20;     // drive type "removable"
constexpr ULONG DOKAN_OPTION_MOUNT_MANAGER = 0x40;
constexpr ULONG DOKAN_OPTION_CURRENT_SESSION = 0x80;
constexpr ULONG DOKAN_OPTION_FILELOCK_USER_MODE = 0x100;

struct DOKAN_OPTIONS {
  USHORT Version = 0;           // DOKAN_VERSION
  BOOLEAN SingleThread = 0;     // 1: one request at a time
  ULONG Options = 0;            // DOKAN_OPTION_*
  ULONG64 GlobalContext = 0;    // free for the file system
  LPCWSTR MountPoint = nullptr; // "X:\\", "X:" or "X"
  LPCWSTR UNCName = nullptr;    // ignored
  ULONG Timeout = 0;            // ignored: the kernel waits as long as the server serves
  ULONG AllocationUnitSize = 0; // block size reported by statfs (0: 4096)
  ULONG SectorSize = 0;         // ignored
};
using PDOKAN_OPTIONS = DOKAN_OPTIONS*;

// ---------------------------------------------------------------------------
// Per-request record. One per open: Context and the flags that the file
// system sets survive from request to request of the same open.

struct DOKAN_FILE_INFO {
  ULONG64 Context = 0;           // free for the file system (set by ZwCreateFile)
  ULONG64 DokanContext = 0;      // the library's own
  PDOKAN_OPTIONS DokanOptions = nullptr;
  void* ProcessingContext = nullptr;
  ULONG ProcessId = 0;           // process that made the request
  UCHAR IsDirectory = 0;         // set by the library for folder opens; the file system may set or clear it in ZwCreateFile
  UCHAR DeleteOnClose = 0;       // delete in Cleanup
  UCHAR PagingIo = 0;
  UCHAR SynchronousIo = 0;
  UCHAR Nocache = 0;
  UCHAR WriteToEndOfFile = 0;    // the open appends (O_APPEND)
};
using PDOKAN_FILE_INFO = DOKAN_FILE_INFO*;

struct BY_HANDLE_FILE_INFORMATION {
  DWORD dwFileAttributes = 0;
  FILETIME ftCreationTime;
  FILETIME ftLastAccessTime;
  FILETIME ftLastWriteTime;
  DWORD dwVolumeSerialNumber = 0;
  DWORD nFileSizeHigh = 0;
  DWORD nFileSizeLow = 0;
  DWORD nNumberOfLinks = 0;
  DWORD nFileIndexHigh = 0;
  DWORD nFileIndexLow = 0;
};
using LPBY_HANDLE_FILE_INFORMATION = BY_HANDLE_FILE_INFORMATION*;

// Security context of a create: nothing of it is used on Linux.
struct DOKAN_IO_SECURITY_CONTEXT {
  ACCESS_MASK DesiredAccess = 0;
  ULONG FullCreateOptions = 0;
};
using PDOKAN_IO_SECURITY_CONTEXT = DOKAN_IO_SECURITY_CONTEXT*;

// Answer of FindFiles for one entry: 0 to go on, 1 when the buffer is full.
using PFillFindData = int (*)(PWIN32_FIND_DATAW FindData, PDOKAN_FILE_INFO DokanFileInfo);

// The operation table. Every operation returns an NTSTATUS; a slot left
// empty is answered by the library itself (see docs/dokan.md).
struct DOKAN_OPERATIONS {
  NTSTATUS (*ZwCreateFile)(LPCWSTR FileName, PDOKAN_IO_SECURITY_CONTEXT SecurityContext,
                           ACCESS_MASK DesiredAccess, ULONG FileAttributes, ULONG ShareAccess,
                           ULONG CreateDisposition, ULONG CreateOptions,
                           PDOKAN_FILE_INFO DokanFileInfo) = nullptr;
  void (*Cleanup)(LPCWSTR FileName, PDOKAN_FILE_INFO DokanFileInfo) = nullptr;
  void (*CloseFile)(LPCWSTR FileName, PDOKAN_FILE_INFO DokanFileInfo) = nullptr;
  NTSTATUS (*ReadFile)(LPCWSTR FileName, LPVOID Buffer, DWORD BufferLength, LPDWORD ReadLength,
                       LONGLONG Offset, PDOKAN_FILE_INFO DokanFileInfo) = nullptr;
  NTSTATUS (*WriteFile)(LPCWSTR FileName, LPCVOID Buffer, DWORD NumberOfBytesToWrite,
                        LPDWORD NumberOfBytesWritten, LONGLONG Offset,
                        PDOKAN_FILE_INFO DokanFileInfo) = nullptr;
  NTSTATUS (*FlushFileBuffers)(LPCWSTR FileName, PDOKAN_FILE_INFO DokanFileInfo) = nullptr;
  NTSTATUS (*GetFileInformation)(LPCWSTR FileName, LPBY_HANDLE_FILE_INFORMATION Buffer,
                                 PDOKAN_FILE_INFO DokanFileInfo) = nullptr;
  NTSTATUS (*FindFiles)(LPCWSTR PathName, PFillFindData FillFindData,
                        PDOKAN_FILE_INFO DokanFileInfo) = nullptr;
  NTSTATUS (*FindFilesWithPattern)(LPCWSTR PathName, LPCWSTR SearchPattern,
                                   PFillFindData FillFindData,
                                   PDOKAN_FILE_INFO DokanFileInfo) = nullptr;
  NTSTATUS (*SetFileAttributes)(LPCWSTR FileName, DWORD FileAttributes,
                                PDOKAN_FILE_INFO DokanFileInfo) = nullptr;
  NTSTATUS (*SetFileTime)(LPCWSTR FileName, const FILETIME* CreationTime,
                          const FILETIME* LastAccessTime, const FILETIME* LastWriteTime,
                          PDOKAN_FILE_INFO DokanFileInfo) = nullptr;
  NTSTATUS (*DeleteFile)(LPCWSTR FileName, PDOKAN_FILE_INFO DokanFileInfo) = nullptr;
  NTSTATUS (*DeleteDirectory)(LPCWSTR FileName, PDOKAN_FILE_INFO DokanFileInfo) = nullptr;
  NTSTATUS (*MoveFile)(LPCWSTR FileName, LPCWSTR NewFileName, BOOL ReplaceIfExisting,
                       PDOKAN_FILE_INFO DokanFileInfo) = nullptr;
  NTSTATUS (*SetEndOfFile)(LPCWSTR FileName, LONGLONG ByteOffset,
                           PDOKAN_FILE_INFO DokanFileInfo) = nullptr;
  NTSTATUS (*SetAllocationSize)(LPCWSTR FileName, LONGLONG AllocSize,
                                PDOKAN_FILE_INFO DokanFileInfo) = nullptr;
  NTSTATUS (*LockFile)(LPCWSTR FileName, LONGLONG ByteOffset, LONGLONG Length,
                       PDOKAN_FILE_INFO DokanFileInfo) = nullptr;
  NTSTATUS (*UnlockFile)(LPCWSTR FileName, LONGLONG ByteOffset, LONGLONG Length,
                         PDOKAN_FILE_INFO DokanFileInfo) = nullptr;
  NTSTATUS (*GetDiskFreeSpace)(PULONGLONG FreeBytesAvailable, PULONGLONG TotalNumberOfBytes,
                               PULONGLONG TotalNumberOfFreeBytes,
                               PDOKAN_FILE_INFO DokanFileInfo) = nullptr;
  NTSTATUS (*GetVolumeInformation)(LPWSTR VolumeNameBuffer, DWORD VolumeNameSize,
                                   LPDWORD VolumeSerialNumber, LPDWORD MaximumComponentLength,
                                   LPDWORD FileSystemFlags, LPWSTR FileSystemNameBuffer,
                                   DWORD FileSystemNameSize,
                                   PDOKAN_FILE_INFO DokanFileInfo) = nullptr;
  NTSTATUS (*Mounted)(LPCWSTR MountPoint, PDOKAN_FILE_INFO DokanFileInfo) = nullptr;
  NTSTATUS (*Unmounted)(PDOKAN_FILE_INFO DokanFileInfo) = nullptr;
  NTSTATUS (*GetFileSecurity)(LPCWSTR FileName, void* SecurityInformation,
                              void* SecurityDescriptor, ULONG BufferLength,
                              ULONG* LengthNeeded, PDOKAN_FILE_INFO DokanFileInfo) = nullptr;
  NTSTATUS (*SetFileSecurity)(LPCWSTR FileName, void* SecurityInformation,
                              void* SecurityDescriptor, ULONG BufferLength,
                              PDOKAN_FILE_INFO DokanFileInfo) = nullptr;
  NTSTATUS (*FindStreams)(LPCWSTR FileName, void* FillFindStreamData, void* FindStreamContext,
                          PDOKAN_FILE_INFO DokanFileInfo) = nullptr;
};
using PDOKAN_OPERATIONS = DOKAN_OPERATIONS*;

// ---------------------------------------------------------------------------
// Kernel values of a create (ZwCreateFile) and their Win32 counterparts.

// Access rights.
constexpr ACCESS_MASK FILE_READ_DATA = 0x0001;
constexpr ACCESS_MASK FILE_LIST_DIRECTORY = 0x0001;
constexpr ACCESS_MASK FILE_WRITE_DATA = 0x0002;
constexpr ACCESS_MASK FILE_ADD_FILE = 0x0002;
constexpr ACCESS_MASK FILE_APPEND_DATA = 0x0004;
constexpr ACCESS_MASK FILE_ADD_SUBDIRECTORY = 0x0004;
constexpr ACCESS_MASK FILE_READ_EA = 0x0008;
constexpr ACCESS_MASK FILE_WRITE_EA = 0x0010;
constexpr ACCESS_MASK FILE_EXECUTE = 0x0020;
constexpr ACCESS_MASK FILE_TRAVERSE = 0x0020;
constexpr ACCESS_MASK FILE_DELETE_CHILD = 0x0040;
constexpr ACCESS_MASK FILE_READ_ATTRIBUTES = 0x0080;
constexpr ACCESS_MASK FILE_WRITE_ATTRIBUTES = 0x0100;
constexpr ACCESS_MASK DELETE = 0x00010000;
constexpr ACCESS_MASK READ_CONTROL = 0x00020000;
constexpr ACCESS_MASK WRITE_DAC = 0x00040000;
constexpr ACCESS_MASK WRITE_OWNER = 0x00080000;
constexpr ACCESS_MASK SYNCHRONIZE = 0x00100000;
constexpr ACCESS_MASK STANDARD_RIGHTS_REQUIRED = 0x000F0000;
constexpr ACCESS_MASK STANDARD_RIGHTS_READ = READ_CONTROL;
constexpr ACCESS_MASK STANDARD_RIGHTS_WRITE = READ_CONTROL;
constexpr ACCESS_MASK STANDARD_RIGHTS_EXECUTE = READ_CONTROL;
constexpr ACCESS_MASK GENERIC_EXECUTE = 0x20000000u;
constexpr ACCESS_MASK GENERIC_ALL = 0x10000000u;
constexpr ACCESS_MASK FILE_GENERIC_READ =
    STANDARD_RIGHTS_READ | FILE_READ_DATA | FILE_READ_ATTRIBUTES | FILE_READ_EA | SYNCHRONIZE;
constexpr ACCESS_MASK FILE_GENERIC_WRITE = STANDARD_RIGHTS_WRITE | FILE_WRITE_DATA |
                                           FILE_WRITE_ATTRIBUTES | FILE_WRITE_EA |
                                           FILE_APPEND_DATA | SYNCHRONIZE;
constexpr ACCESS_MASK FILE_GENERIC_EXECUTE =
    STANDARD_RIGHTS_EXECUTE | FILE_READ_ATTRIBUTES | FILE_EXECUTE | SYNCHRONIZE;
constexpr ACCESS_MASK FILE_ALL_ACCESS = STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0x1FF;

// Share access.
constexpr ULONG FILE_SHARE_READ = 0x1;
constexpr ULONG FILE_SHARE_WRITE = 0x2;
constexpr ULONG FILE_SHARE_DELETE = 0x4;

// Kernel create dispositions.
constexpr ULONG FILE_SUPERSEDE = 0;
constexpr ULONG FILE_OPEN = 1;
constexpr ULONG FILE_CREATE = 2;
constexpr ULONG FILE_OPEN_IF = 3;
constexpr ULONG FILE_OVERWRITE = 4;
constexpr ULONG FILE_OVERWRITE_IF = 5;

// Kernel create options.
constexpr ULONG FILE_DIRECTORY_FILE = 0x00000001;
constexpr ULONG FILE_WRITE_THROUGH = 0x00000002;
constexpr ULONG FILE_SEQUENTIAL_ONLY = 0x00000004;
constexpr ULONG FILE_NO_INTERMEDIATE_BUFFERING = 0x00000008;
constexpr ULONG FILE_SYNCHRONOUS_IO_ALERT = 0x00000010;
constexpr ULONG FILE_SYNCHRONOUS_IO_NONALERT = 0x00000020;
constexpr ULONG FILE_NON_DIRECTORY_FILE = 0x00000040;
constexpr ULONG FILE_CREATE_TREE_CONNECTION = 0x00000080;
constexpr ULONG FILE_COMPLETE_IF_OPLOCKED = 0x00000100;
constexpr ULONG FILE_NO_EA_KNOWLEDGE = 0x00000200;
constexpr ULONG FILE_OPEN_REMOTE_INSTANCE = 0x00000400;
constexpr ULONG FILE_RANDOM_ACCESS = 0x00000800;
constexpr ULONG FILE_DELETE_ON_CLOSE = 0x00001000;
constexpr ULONG FILE_OPEN_BY_FILE_ID = 0x00002000;
constexpr ULONG FILE_OPEN_FOR_BACKUP_INTENT = 0x00004000;
constexpr ULONG FILE_NO_COMPRESSION = 0x00008000;
constexpr ULONG FILE_RESERVE_OPFILTER = 0x00100000;
constexpr ULONG FILE_OPEN_REPARSE_POINT = 0x00200000;
constexpr ULONG FILE_OPEN_NO_RECALL = 0x00400000;
constexpr ULONG FILE_OPEN_FOR_FREE_SPACE_QUERY = 0x00800000;

// Win32 creation dispositions.
constexpr DWORD CREATE_NEW = 1;
constexpr DWORD CREATE_ALWAYS = 2;
constexpr DWORD OPEN_EXISTING = 3;
constexpr DWORD OPEN_ALWAYS = 4;
constexpr DWORD TRUNCATE_EXISTING = 5;

// Win32 flags of CreateFile's attributes-and-flags.
constexpr DWORD FILE_FLAG_WRITE_THROUGH = 0x80000000u;
constexpr DWORD FILE_FLAG_OVERLAPPED = 0x40000000u;
constexpr DWORD FILE_FLAG_NO_BUFFERING = 0x20000000u;
constexpr DWORD FILE_FLAG_RANDOM_ACCESS = 0x10000000u;
constexpr DWORD FILE_FLAG_SEQUENTIAL_SCAN = 0x08000000u;
constexpr DWORD FILE_FLAG_DELETE_ON_CLOSE = 0x04000000u;
constexpr DWORD FILE_FLAG_BACKUP_SEMANTICS = 0x02000000u;
constexpr DWORD FILE_FLAG_POSIX_SEMANTICS = 0x01000000u;
constexpr DWORD FILE_FLAG_OPEN_REPARSE_POINT = 0x00200000u;
constexpr DWORD FILE_FLAG_OPEN_NO_RECALL = 0x00100000u;

// Attributes beyond those of the find record.
constexpr DWORD FILE_ATTRIBUTE_DEVICE = 0x00000040;
constexpr DWORD FILE_ATTRIBUTE_TEMPORARY = 0x00000100;
constexpr DWORD FILE_ATTRIBUTE_SPARSE_FILE = 0x00000200;
constexpr DWORD FILE_ATTRIBUTE_REPARSE_POINT = 0x00000400;
constexpr DWORD FILE_ATTRIBUTE_COMPRESSED = 0x00000800;
constexpr DWORD FILE_ATTRIBUTE_OFFLINE = 0x00001000;
constexpr DWORD FILE_ATTRIBUTE_NOT_CONTENT_INDEXED = 0x00002000;
constexpr DWORD FILE_ATTRIBUTE_ENCRYPTED = 0x00004000;

// File-system flags of GetVolumeInformation.
constexpr DWORD FILE_CASE_SENSITIVE_SEARCH = 0x00000001;
constexpr DWORD FILE_CASE_PRESERVED_NAMES = 0x00000002;
constexpr DWORD FILE_UNICODE_ON_DISK = 0x00000004;
constexpr DWORD FILE_READ_ONLY_VOLUME = 0x00080000;

// ---------------------------------------------------------------------------
// Calls

// Initialises and releases the library; DokanMain initialises on its own
// when DokanInit was not called. Both may be called more than once.
void DokanInit();
void DokanShutdown();

// Mounts the letter of options->MountPoint and serves it with `operations`
// until the mount point is removed. DOKAN_SUCCESS after the removal,
// DOKAN_DRIVE_LETTER_ERROR when the mount point is not a letter,
// DOKAN_MOUNT_ERROR when the letter cannot be mounted (taken, mount
// refused), DOKAN_VERSION_ERROR for an options version below 200,
// DOKAN_ERROR otherwise (no usable /dev/fuse, bad arguments).
int DokanMain(PDOKAN_OPTIONS DokanOptions, PDOKAN_OPERATIONS DokanOperations);

// Removes the mount point "X:\\" (or "X:", "X") of any process. Non-zero on
// success. A mount that is busy (open files) is detached and its server's
// connection ended, as Windows would remove the drive anyway.
BOOL DokanRemoveMountPoint(LPCWSTR MountPoint);

ULONG DokanVersion();        // 231
ULONG DokanDriverVersion();  // 400, 0 when /dev/fuse cannot be used

// Win32 wildcard match (*, ?, and the DOS forms <, >, "); with IgnoreCase
// the comparison folds case for all of Unicode.
BOOL DokanIsNameInExpression(LPCWSTR Expression, LPCWSTR Name, BOOL IgnoreCase);

// Kernel create parameters to CreateFile's access, attributes-and-flags and
// creation disposition. Any output may be null.
void DokanMapKernelToUserCreateFileFlags(ACCESS_MASK DesiredAccess, ULONG FileAttributes,
                                         ULONG CreateOptions, ULONG CreateDisposition,
                                         ACCESS_MASK* outDesiredAccess,
                                         DWORD* outFileAttributesAndFlags,
                                         DWORD* outCreationDisposition);
