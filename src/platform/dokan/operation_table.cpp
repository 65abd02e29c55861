#include "platform/dokan/operation_table.h"

#include <cstring>

#include "diag/trace.h"

namespace qb::dokan {
namespace {

constexpr const char* kTag = "K4@OperationTable: ";
// Volume texts: 260 UTF-16 units, three bytes per unit at most.
constexpr DWORD kNameUnits = 260;
constexpr size_t kNameBytes = kNameUnits * 3 + 1;

template <typename F>
NTSTATUS Guarded(const char* what, F&& call) {
  try {
    return call();
  } catch (...) {
    Trace(kTag, "%s threw; answering STATUS_INTERNAL_ERROR", what);
    return STATUS_INTERNAL_ERROR;
  }
}

int Collect(PWIN32_FIND_DATAW data, PDOKAN_FILE_INFO info) {
  auto* out = reinterpret_cast<std::vector<WIN32_FIND_DATAW>*>(info->DokanContext);
  if (!out || !data) return 1;
  out->push_back(*data);
  return 0;
}

}  // namespace

NTSTATUS OperationTable::Create(const std::string& path, ACCESS_MASK access, ULONG attributes,
                                ULONG share, ULONG disposition, ULONG options,
                                DOKAN_FILE_INFO* info) const {
  if (!ops_.ZwCreateFile) return STATUS_SUCCESS;  // every open is accepted as it is
  DOKAN_IO_SECURITY_CONTEXT security{access, options};
  return Guarded("ZwCreateFile", [&] {
    return ops_.ZwCreateFile(path.c_str(), &security, access, attributes, share, disposition,
                             options, info);
  });
}

void OperationTable::Cleanup(const std::string& path, DOKAN_FILE_INFO* info) const {
  if (!ops_.Cleanup) return;
  Guarded("Cleanup", [&] {
    ops_.Cleanup(path.c_str(), info);
    return STATUS_SUCCESS;
  });
}

void OperationTable::Close(const std::string& path, DOKAN_FILE_INFO* info) const {
  if (!ops_.CloseFile) return;
  Guarded("CloseFile", [&] {
    ops_.CloseFile(path.c_str(), info);
    return STATUS_SUCCESS;
  });
}

NTSTATUS OperationTable::Read(const std::string& path, void* buffer, DWORD length, DWORD* read,
                              LONGLONG offset, DOKAN_FILE_INFO* info) const {
  *read = 0;
  if (!ops_.ReadFile) return STATUS_NOT_IMPLEMENTED;
  return Guarded("ReadFile",
                 [&] { return ops_.ReadFile(path.c_str(), buffer, length, read, offset, info); });
}

NTSTATUS OperationTable::Write(const std::string& path, const void* buffer, DWORD length,
                               DWORD* written, LONGLONG offset, DOKAN_FILE_INFO* info) const {
  *written = 0;
  if (!ops_.WriteFile) return STATUS_NOT_IMPLEMENTED;
  return Guarded("WriteFile", [&] {
    return ops_.WriteFile(path.c_str(), buffer, length, written, offset, info);
  });
}

NTSTATUS OperationTable::Flush(const std::string& path, DOKAN_FILE_INFO* info) const {
  if (!ops_.FlushFileBuffers) return STATUS_SUCCESS;
  return Guarded("FlushFileBuffers", [&] { return ops_.FlushFileBuffers(path.c_str(), info); });
}

NTSTATUS OperationTable::GetInformation(const std::string& path, BY_HANDLE_FILE_INFORMATION* out,
                                        DOKAN_FILE_INFO* info) const {
  *out = BY_HANDLE_FILE_INFORMATION{};
  if (!ops_.GetFileInformation) return STATUS_NOT_IMPLEMENTED;
  return Guarded("GetFileInformation",
                 [&] { return ops_.GetFileInformation(path.c_str(), out, info); });
}

NTSTATUS OperationTable::Find(const std::string& path, std::vector<WIN32_FIND_DATAW>* out,
                              DOKAN_FILE_INFO* info) const {
  out->clear();
  const ULONG64 saved = info->DokanContext;
  info->DokanContext = reinterpret_cast<ULONG64>(out);
  NTSTATUS status = STATUS_NOT_IMPLEMENTED;
  if (ops_.FindFiles) {
    status = Guarded("FindFiles", [&] { return ops_.FindFiles(path.c_str(), Collect, info); });
  } else if (ops_.FindFilesWithPattern) {
    status = Guarded("FindFilesWithPattern", [&] {
      return ops_.FindFilesWithPattern(path.c_str(), "*", Collect, info);
    });
  }
  info->DokanContext = saved;
  return status;
}

NTSTATUS OperationTable::SetAttributes(const std::string& path, DWORD attributes,
                                       DOKAN_FILE_INFO* info) const {
  if (!ops_.SetFileAttributes) return STATUS_NOT_IMPLEMENTED;
  return Guarded("SetFileAttributes",
                 [&] { return ops_.SetFileAttributes(path.c_str(), attributes, info); });
}

NTSTATUS OperationTable::SetTime(const std::string& path, const FILETIME* creation,
                                 const FILETIME* access, const FILETIME* write,
                                 DOKAN_FILE_INFO* info) const {
  if (!ops_.SetFileTime) return STATUS_NOT_IMPLEMENTED;
  return Guarded("SetFileTime",
                 [&] { return ops_.SetFileTime(path.c_str(), creation, access, write, info); });
}

NTSTATUS OperationTable::DeleteFile(const std::string& path, DOKAN_FILE_INFO* info) const {
  if (!ops_.DeleteFile) return STATUS_NOT_IMPLEMENTED;
  return Guarded("DeleteFile", [&] { return ops_.DeleteFile(path.c_str(), info); });
}

NTSTATUS OperationTable::DeleteDirectory(const std::string& path, DOKAN_FILE_INFO* info) const {
  if (!ops_.DeleteDirectory) return STATUS_NOT_IMPLEMENTED;
  return Guarded("DeleteDirectory", [&] { return ops_.DeleteDirectory(path.c_str(), info); });
}

NTSTATUS OperationTable::Move(const std::string& path, const std::string& newPath, bool replace,
                              DOKAN_FILE_INFO* info) const {
  if (!ops_.MoveFile) return STATUS_NOT_IMPLEMENTED;
  return Guarded("MoveFile", [&] {
    return ops_.MoveFile(path.c_str(), newPath.c_str(), replace ? TRUE : FALSE, info);
  });
}

NTSTATUS OperationTable::SetEndOfFile(const std::string& path, LONGLONG size,
                                      DOKAN_FILE_INFO* info) const {
  if (!ops_.SetEndOfFile) return STATUS_NOT_IMPLEMENTED;
  return Guarded("SetEndOfFile", [&] { return ops_.SetEndOfFile(path.c_str(), size, info); });
}

NTSTATUS OperationTable::SetAllocationSize(const std::string& path, LONGLONG size,
                                           DOKAN_FILE_INFO* info) const {
  if (!ops_.SetAllocationSize) return STATUS_NOT_IMPLEMENTED;
  return Guarded("SetAllocationSize",
                 [&] { return ops_.SetAllocationSize(path.c_str(), size, info); });
}

NTSTATUS OperationTable::DiskFreeSpace(DiskSpace* out, DOKAN_FILE_INFO* info) const {
  *out = DiskSpace{};
  if (!ops_.GetDiskFreeSpace) return STATUS_SUCCESS;  // an empty drive of no size
  return Guarded("GetDiskFreeSpace", [&] {
    return ops_.GetDiskFreeSpace(&out->freeBytesAvailable, &out->totalBytes,
                                 &out->totalFreeBytes, info);
  });
}

NTSTATUS OperationTable::Volume(VolumeInfo* out, DOKAN_FILE_INFO* info) const {
  *out = VolumeInfo{"DOKAN", "DOKAN", 0x19831116, 255,
                    FILE_CASE_PRESERVED_NAMES | FILE_UNICODE_ON_DISK};
  if (!ops_.GetVolumeInformation) return STATUS_SUCCESS;
  char volume[kNameBytes] = {};
  char fileSystem[kNameBytes] = {};
  const NTSTATUS status = Guarded("GetVolumeInformation", [&] {
    return ops_.GetVolumeInformation(volume, kNameUnits, &out->serialNumber,
                                     &out->maximumComponentLength, &out->fileSystemFlags,
                                     fileSystem, kNameUnits, info);
  });
  volume[kNameBytes - 1] = fileSystem[kNameBytes - 1] = 0;
  out->volumeName = volume;
  out->fileSystemName = fileSystem;
  return status;
}

void OperationTable::Mounted(const std::string& mountPoint, DOKAN_FILE_INFO* info) const {
  if (!ops_.Mounted) return;
  Guarded("Mounted", [&] { return ops_.Mounted(mountPoint.c_str(), info); });
}

void OperationTable::Unmounted(DOKAN_FILE_INFO* info) const {
  if (!ops_.Unmounted) return;
  Guarded("Unmounted", [&] { return ops_.Unmounted(info); });
}

}  // namespace qb::dokan
