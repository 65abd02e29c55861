// Volume information and free space.
#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "common/strings.h"
#include "diag/trace.h"
#include "drive/write_side.h"
#include "platform/system/clock.h"

using namespace qb::drive;

namespace {

constexpr DWORD kVolumeSerial = 0x600DCAFE;

// Copies text into a buffer of `size` UTF-16 units (three bytes each here).
void CopyOut(LPWSTR buffer, DWORD size, const std::string& text) {
  if (!buffer || size == 0) return;
  const std::string cut(qb::CutToUtf16(text, std::min<DWORD>(size, 260) - 1));
  std::memcpy(buffer, cut.c_str(), cut.size() + 1);
}

uint64_t ParseBytes(const std::string& value) {
  int64_t v = 0;
  if (std::sscanf(value.c_str(), "%" SCNd64, &v) != 1 || v < 0) return 0;
  return static_cast<uint64_t>(v);
}

}  // namespace

NTSTATUS QuillboxGetVolumeInformation(LPWSTR VolumeNameBuffer, DWORD VolumeNameSize,
                                      LPDWORD VolumeSerialNumber, LPDWORD MaximumComponentLength,
                                      LPDWORD FileSystemFlags, LPWSTR FileSystemNameBuffer,
                                      DWORD FileSystemNameSize, PDOKAN_FILE_INFO) {
  static const char* tag = "M60@QuillboxGetVolumeInformation: ";
  DriveState* state = GetDriveState();
  if (!state) return TraceStatus(tag, STATUS_UNSUCCESSFUL, 2);
  if (!CheckIntegrity(state)) {
    if (state->hooks.fnForceUnmount) state->hooks.fnForceUnmount(true);
    return TraceStatus(tag, STATUS_UNSUCCESSFUL, 2);
  }
  SetupIcon(state, "QuillboxGetVolumeInformation");
  std::string name = state->sLabel.empty() ? state->sDeviceName : state->sLabel;
  if (!state->sStorageName.empty()) name += " [" + state->sStorageName + "]";
  name += " @ Quillbox";
  CopyOut(VolumeNameBuffer, VolumeNameSize, name);
  if (VolumeSerialNumber) *VolumeSerialNumber = kVolumeSerial;
  if (MaximumComponentLength) *MaximumComponentLength = 256;
  if (FileSystemFlags) *FileSystemFlags = 0x107;
  if (FileSystemNameSize >= 11) CopyOut(FileSystemNameBuffer, FileSystemNameSize, "QUILLBOXFS");
  return TraceStatus(tag, STATUS_SUCCESS, 1);
}

NTSTATUS Guard_QuillboxGetVolumeInformation(LPWSTR VolumeNameBuffer, DWORD VolumeNameSize,
                                            LPDWORD VolumeSerialNumber,
                                            LPDWORD MaximumComponentLength, LPDWORD FileSystemFlags,
                                            LPWSTR FileSystemNameBuffer, DWORD FileSystemNameSize,
                                            PDOKAN_FILE_INFO DokanFileInfo) {
  DriveState* state = GetDriveState();
  if (!state) return STATUS_INTERNAL_ERROR;
  std::unique_lock exclusive(state->hExclusiveAccessMutex, std::defer_lock);
  while (!exclusive.try_lock_for(std::chrono::milliseconds(100)))
    Trace("M60G@Guard_QuillboxGetVolumeInformation: ", "Waiting for exclusive access");
  return QuillboxGetVolumeInformation(VolumeNameBuffer, VolumeNameSize, VolumeSerialNumber,
                                      MaximumComponentLength, FileSystemFlags, FileSystemNameBuffer,
                                      FileSystemNameSize, DokanFileInfo);
}

NTSTATUS QuillboxGetDiskFreeSpace(PULONGLONG FreeBytesAvailable, PULONGLONG TotalNumberOfBytes,
                                  PULONGLONG TotalNumberOfFreeBytes, PDOKAN_FILE_INFO) {
  static const char* tag = "M61@QuillboxGetDiskFreeSpace: ";
  DriveState* state = GetDriveState();
  if (!state) return TraceStatus(tag, STATUS_UNSUCCESSFUL, 1);
  PtrList<std::string> names, values;
  bool known = false;
  uint64_t capacity = 0, free = 0;
  if (state->pHelper &&
      SUCCEEDED(state->pHelper->GetDeviceProps(&names, &values, 0, 1, state->nStorageIndex, nullptr))) {
    int64_t current = -1;
    for (uint32_t i = 0; i < names.Count() && i < values.Count(); ++i) {
      const std::string& n = *names[i];
      const std::string& v = *values[i];
      const bool mine = state->nStorageIndex == 0 || current == state->nStorageIndex;
      if (n == "WPD_STORAGE_INDEX") current = static_cast<int64_t>(ParseBytes(v));
      else if (n == "WPD_STORAGE_CAPACITY" && mine) capacity += ParseBytes(v), known = true;
      else if (n == "WPD_STORAGE_FREE_SPACE_IN_BYTES" && mine) free += ParseBytes(v);
    }
  }
  if (!known) {
    capacity = state->pDirectory ? static_cast<uint64_t>(state->pDirectory->AddSize(0)) : 0;
    free = 0;
  }
  if (FreeBytesAvailable) *FreeBytesAvailable = free;
  if (TotalNumberOfBytes) *TotalNumberOfBytes = capacity;
  if (TotalNumberOfFreeBytes) *TotalNumberOfFreeBytes = free;
  state->llFreeBytes = known ? static_cast<int64_t>(free) : -1;
  state->ullFreeBytesReadMs = qb::sys::GetTickCount64();
  return TraceStatus(tag, known ? STATUS_SUCCESS : ToNtStatus(50));
}

void RefreshDriveFreeSpace() { QuillboxGetDiskFreeSpace(nullptr, nullptr, nullptr, nullptr); }

namespace qb::drive {

bool FitsFreeSpace(DriveState* state, uint64_t bytes) {
  if (state->llFreeBytes < 0 || bytes <= static_cast<uint64_t>(state->llFreeBytes.load())) return true;
  // The stored figure may be the drive's own estimate, or older than room
  // that others made since: a refusal rests on the device's figure.
  RefreshDriveFreeSpace();
  const int64_t free = state->llFreeBytes;
  return free < 0 || bytes <= static_cast<uint64_t>(free);
}

void NoteUploadedBytes(DriveState* state, int64_t grown) {
  const int64_t free = state->llFreeBytes;
  if (free < 0) return;
  // A run of uploads asks the device once a second, not once a file (each
  // question waits behind the request worker's queue).
  if (qb::sys::GetTickCount64() - state->ullFreeBytesReadMs >= kFreeSpaceReadEveryMs) {
    RefreshDriveFreeSpace();
    return;
  }
  state->llFreeBytes = std::max<int64_t>(free - grown, 0);
  Trace("M62@NoteUploadedBytes: ", "%lld [%lld]", static_cast<long long>(grown),
        static_cast<long long>(state->llFreeBytes.load()));
}

}  // namespace qb::drive
