#pragma once
// The bytes of the shared section "QuillboxG" that every instance of a
// user's session maps. This is a binary format shared by processes running
// at the same time: offsets and sizes are fixed and checked below. Strings
// are UTF-16 with a terminating zero; capacities count UTF-16 units.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "app/shared_handle.h"

namespace qb::app {

constexpr uint32_t Signature(const char (&s)[5]) {
  return static_cast<uint32_t>(static_cast<unsigned char>(s[0])) |
         static_cast<uint32_t>(static_cast<unsigned char>(s[1])) << 8 |
         static_cast<uint32_t>(static_cast<unsigned char>(s[2])) << 16 |
         static_cast<uint32_t>(static_cast<unsigned char>(s[3])) << 24;
}
constexpr uint32_t kSectionSignature = Signature("QSGP");
constexpr uint32_t kDriveSignature = Signature("QSGD");
constexpr uint32_t kCacheSignature = Signature("QSGC");

constexpr int kDriveCount = 26;
constexpr int kCacheEntryCount = 50;

// One drive letter's entry; written by the instance that serves the drive,
// except the signalled flag, which the instance that started it writes.
struct SharedDriveEntry {
  uint32_t dwSignature;
  char16_t sDeviceID[262];        // at most 259 characters; empty: entry free
  uint64_t hMappingFinished;      // descriptor in the serving process; 0 none
  uint32_t bSignalled;
  uint32_t dwDeviceType;          // WPD_DEVICE_TYPE
  char16_t sFriendlyName[101];
  char16_t sAlias[21];
  char16_t sSerialNumber[261];
  char16_t sPnPID[261];           // empty unless Flags bit 0x100
  char16_t sStorageName[101];
  char16_t sStorageIndex[11];     // decimal text
};
static_assert(sizeof(SharedDriveEntry) == 2056);
static_assert(offsetof(SharedDriveEntry, sDeviceID) == 4);
static_assert(offsetof(SharedDriveEntry, hMappingFinished) == 528);
static_assert(offsetof(SharedDriveEntry, bSignalled) == 536);
static_assert(offsetof(SharedDriveEntry, dwDeviceType) == 540);
static_assert(offsetof(SharedDriveEntry, sFriendlyName) == 544);
static_assert(offsetof(SharedDriveEntry, sAlias) == 746);
static_assert(offsetof(SharedDriveEntry, sSerialNumber) == 788);
static_assert(offsetof(SharedDriveEntry, sPnPID) == 1310);
static_assert(offsetof(SharedDriveEntry, sStorageName) == 1832);
static_assert(offsetof(SharedDriveEntry, sStorageIndex) == 2034);

// One drive's cache subfolder and the bytes in it.
struct SharedCacheEntry {
  uint32_t dwSignature;
  int32_t nDriveIndex;            // 0 for "a" .. 25 for "z", -1 none
  uint64_t ullBytesCached;
  char16_t sName[260];            // at most 259 characters; empty: free
};
static_assert(sizeof(SharedCacheEntry) == 536);
static_assert(offsetof(SharedCacheEntry, nDriveIndex) == 4);
static_assert(offsetof(SharedCacheEntry, ullBytesCached) == 8);
static_assert(offsetof(SharedCacheEntry, sName) == 16);

struct SharedSectionLayout {
  uint32_t dwSignature;           // "QSGP"
  uint32_t dwInstances;           // attached instances
  uint64_t hMainWnd;              // main window, 0 none
  CSharedHandle shLogFile;
  CSharedHandle shLogMutex;
  SharedDriveEntry drives[kDriveCount];
  SharedCacheEntry cache[kCacheEntryCount];
  uint64_t reserved;
};
static_assert(sizeof(SharedSectionLayout) == 81896);
static_assert(offsetof(SharedSectionLayout, dwInstances) == 4);
static_assert(offsetof(SharedSectionLayout, hMainWnd) == 8);
static_assert(offsetof(SharedSectionLayout, shLogFile) == 16);
static_assert(offsetof(SharedSectionLayout, shLogMutex) == 824);
static_assert(offsetof(SharedSectionLayout, drives) == 1632);
static_assert(offsetof(SharedSectionLayout, cache) == 55088);
static_assert(offsetof(SharedSectionLayout, reserved) == 81888);

constexpr size_t kSharedSectionSize = sizeof(SharedSectionLayout);

// Copies UTF-8 text into a fixed UTF-16 field, cut to capacity less one.
void PutWideN(char16_t* field, size_t capacity, std::string_view text);
// The UTF-8 text of a UTF-16 field (up to its terminator or capacity).
std::string GetWideN(const char16_t* field, size_t capacity);

template <size_t N>
void PutWide(char16_t (&field)[N], std::string_view text) {
  PutWideN(field, N, text);
}
template <size_t N>
std::string GetWide(const char16_t (&field)[N]) {
  return GetWideN(field, N);
}

}  // namespace qb::app
