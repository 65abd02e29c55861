#pragma once
// The file system's operation table as the library calls it: every slot
// through one function that answers for an empty slot the way the library
// does (see docs/dokan.md) and turns a C++ exception from the file system
// into STATUS_INTERNAL_ERROR, so that none crosses a kernel callback.
#include <string>
#include <vector>

#include "platform/dokan/dokan.h"

namespace qb::dokan {

struct VolumeInfo {
  std::string volumeName;
  std::string fileSystemName;
  DWORD serialNumber = 0;
  DWORD maximumComponentLength = 255;
  DWORD fileSystemFlags = 0;
};

struct DiskSpace {
  ULONGLONG freeBytesAvailable = 0;
  ULONGLONG totalBytes = 0;
  ULONGLONG totalFreeBytes = 0;
};

class OperationTable {
 public:
  explicit OperationTable(const DOKAN_OPERATIONS& ops) : ops_(ops) {}

  NTSTATUS Create(const std::string& path, ACCESS_MASK access, ULONG attributes, ULONG share,
                  ULONG disposition, ULONG options, DOKAN_FILE_INFO* info) const;
  void Cleanup(const std::string& path, DOKAN_FILE_INFO* info) const;
  void Close(const std::string& path, DOKAN_FILE_INFO* info) const;
  NTSTATUS Read(const std::string& path, void* buffer, DWORD length, DWORD* read,
                LONGLONG offset, DOKAN_FILE_INFO* info) const;
  NTSTATUS Write(const std::string& path, const void* buffer, DWORD length, DWORD* written,
                 LONGLONG offset, DOKAN_FILE_INFO* info) const;
  NTSTATUS Flush(const std::string& path, DOKAN_FILE_INFO* info) const;
  NTSTATUS GetInformation(const std::string& path, BY_HANDLE_FILE_INFORMATION* out,
                          DOKAN_FILE_INFO* info) const;
  // The entries of a folder as the file system lists them.
  NTSTATUS Find(const std::string& path, std::vector<WIN32_FIND_DATAW>* out,
                DOKAN_FILE_INFO* info) const;
  NTSTATUS SetAttributes(const std::string& path, DWORD attributes, DOKAN_FILE_INFO* info) const;
  NTSTATUS SetTime(const std::string& path, const FILETIME* creation, const FILETIME* access,
                   const FILETIME* write, DOKAN_FILE_INFO* info) const;
  NTSTATUS DeleteFile(const std::string& path, DOKAN_FILE_INFO* info) const;
  NTSTATUS DeleteDirectory(const std::string& path, DOKAN_FILE_INFO* info) const;
  NTSTATUS Move(const std::string& path, const std::string& newPath, bool replace,
                DOKAN_FILE_INFO* info) const;
  NTSTATUS SetEndOfFile(const std::string& path, LONGLONG size, DOKAN_FILE_INFO* info) const;
  bool HasSetAllocationSize() const { return ops_.SetAllocationSize != nullptr; }
  NTSTATUS SetAllocationSize(const std::string& path, LONGLONG size, DOKAN_FILE_INFO* info) const;
  // Outputs hold what the file system filled, also when it failed.
  NTSTATUS DiskFreeSpace(DiskSpace* out, DOKAN_FILE_INFO* info) const;
  NTSTATUS Volume(VolumeInfo* out, DOKAN_FILE_INFO* info) const;
  void Mounted(const std::string& mountPoint, DOKAN_FILE_INFO* info) const;
  void Unmounted(DOKAN_FILE_INFO* info) const;

 private:
  const DOKAN_OPERATIONS ops_;
};

}  // namespace qb::dokan
