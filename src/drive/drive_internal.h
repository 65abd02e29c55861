#pragma once
// Steps shared by the drive's operations (not part of the public header).
#include <string>
#include <string_view>

#include "drive/drive.h"

namespace qb::drive {

// Range-for over a PtrList giving the stored raw pointers.
template <class T>
class RawRange {
 public:
  explicit RawRange(const PtrList<T>& list) : m_list(list) {}
  class It {
   public:
    using Base = decltype(std::declval<const PtrList<T>&>().begin());
    explicit It(Base at) : m_at(at) {}
    T* operator*() const { return m_at->get(); }
    It& operator++() { ++m_at; return *this; }
    bool operator!=(const It& other) const { return m_at != other.m_at; }
   private:
    Base m_at;
  };
  It begin() const { return It(m_list.begin()); }
  It end() const { return It(m_list.end()); }
 private:
  const PtrList<T>& m_list;
};
template <class T>
RawRange<T> Raw(const PtrList<T>& list) { return RawRange<T>(list); }

// The extension of a file name from its last "." on (dot included), or "".
std::string_view ExtensionOf(std::string_view fileName);
// A file item's path on the drive: sFullName and the extension of cFileName.
std::string FileFullName(const DirectoryItem* item);
// The path with a trailing backslash.
std::string WithBackslash(std::string_view path);
// The path up to and including its last backslash ("\" for "\a").
std::string ParentPath(std::string_view path);
bool HasWildcard(std::string_view path);
bool IsOriginalStructure(const DriveState* state);

// Lookups (first match in list order; deleted and pending-delete skipped).
// Callers hold the drive lock.
DirectoryItem* FindFolder(const DriveState* state, std::string_view path);
DirectoryItem* FindFile(const DriveState* state, std::string_view path);
// The file item whose sFullName alone equals the path.
DirectoryItem* FindFileByFullNameOnly(const DriveState* state, std::string_view path);

// The tree item of an open, or null.
inline DirectoryItem* ContextItem(const DOKAN_FILE_INFO* info) {
  return info ? reinterpret_cast<DirectoryItem*>(info->Context) : nullptr;
}

// The cache name of a file item: sFullName without the leading backslash.
std::string CacheName(const DirectoryItem* item);

// Hooks, each skipped when empty.
bool CheckIntegrity(DriveState* state);
void SetupIcon(DriveState* state, const char* reason);
void RefreshShell(DriveState* state, uint32_t event, const std::string& path);

// Answers the status with the numbered return line of the tag.
NTSTATUS TraceStatus(const char* tag, NTSTATUS status, int exitNo = 0);

// Lists the folders that lead to a path the tree does not hold yet.
void PopulateAncestorsOf(DriveState* state, const std::string& path);

// ValidateExistingCacheEntry (read path).
int ValidateExistingCacheEntry(DriveState* state, CCacheItem** entry, DirectoryItem* item);

// The download worker's side of a transfer.
HRESULT GetFileDataCallback(void* context, const uint8_t* data, uint32_t length, uint64_t offset,
                            const char* localPath, uint32_t* written);
void CleanupAfterError(DownloadQueueItem* current, HRESULT hr);

}  // namespace qb::drive

// The operations of the table.
NTSTATUS Guard_QuillboxCreateFile(LPCWSTR FileName, PDOKAN_IO_SECURITY_CONTEXT SecurityContext,
                                  ACCESS_MASK DesiredAccess, ULONG FileAttributes,
                                  ULONG ShareAccess, ULONG CreateDisposition,
                                  ULONG CreateOptions, PDOKAN_FILE_INFO DokanFileInfo);
NTSTATUS QuillboxCreateFile(LPCWSTR FileName, PDOKAN_IO_SECURITY_CONTEXT SecurityContext,
                            ACCESS_MASK DesiredAccess, ULONG FileAttributes, ULONG ShareAccess,
                            ULONG CreateDisposition, ULONG CreateOptions,
                            PDOKAN_FILE_INFO DokanFileInfo);
NTSTATUS QuillboxOpenDirectory(LPCWSTR FileName, PDOKAN_FILE_INFO DokanFileInfo);
NTSTATUS QuillboxGetFileInformation(LPCWSTR FileName, LPBY_HANDLE_FILE_INFORMATION Buffer,
                                    PDOKAN_FILE_INFO DokanFileInfo);
NTSTATUS QuillboxGetFileInformation_Internal(LPCWSTR FileName, LPBY_HANDLE_FILE_INFORMATION Buffer,
                                             PDOKAN_FILE_INFO DokanFileInfo, int hint);
void QuillboxCloseFile(LPCWSTR FileName, PDOKAN_FILE_INFO DokanFileInfo);
NTSTATUS Guard_QuillboxReadFile(LPCWSTR FileName, LPVOID Buffer, DWORD BufferLength,
                                LPDWORD ReadLength, LONGLONG Offset,
                                PDOKAN_FILE_INFO DokanFileInfo);
NTSTATUS QuillboxReadFile(LPCWSTR FileName, LPVOID Buffer, DWORD BufferLength,
                          LPDWORD ReadLength, LONGLONG Offset, PDOKAN_FILE_INFO DokanFileInfo);
NTSTATUS QuillboxFindFiles(LPCWSTR PathName, PFillFindData FillFindData,
                           PDOKAN_FILE_INFO DokanFileInfo);
NTSTATUS QuillboxGetDiskFreeSpace(PULONGLONG FreeBytesAvailable, PULONGLONG TotalNumberOfBytes,
                                  PULONGLONG TotalNumberOfFreeBytes,
                                  PDOKAN_FILE_INFO DokanFileInfo);
NTSTATUS Guard_QuillboxGetVolumeInformation(LPWSTR VolumeNameBuffer, DWORD VolumeNameSize,
                                            LPDWORD VolumeSerialNumber,
                                            LPDWORD MaximumComponentLength,
                                            LPDWORD FileSystemFlags,
                                            LPWSTR FileSystemNameBuffer, DWORD FileSystemNameSize,
                                            PDOKAN_FILE_INFO DokanFileInfo);
NTSTATUS QuillboxGetVolumeInformation(LPWSTR VolumeNameBuffer, DWORD VolumeNameSize,
                                      LPDWORD VolumeSerialNumber, LPDWORD MaximumComponentLength,
                                      LPDWORD FileSystemFlags, LPWSTR FileSystemNameBuffer,
                                      DWORD FileSystemNameSize, PDOKAN_FILE_INFO DokanFileInfo);
// Folder-tree steps of the listing.
void RemoveAll(DriveState* state, const std::string& folderPath);
HRESULT RemoveDirFromPersistFolders(DriveState* state, const std::string& path, int treeOnly);
