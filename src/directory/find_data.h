#pragma once
// The find record of one file or folder as the drive answers it (attributes,
// times, size, name) and the Win32 file attribute bits the tree uses.
// Another room that needs the same record includes this header.
#include <cstdint>
#include <string>

#include "platform/system/wintypes.h"

#ifndef QB_FILE_ATTRIBUTES_DEFINED
#define QB_FILE_ATTRIBUTES_DEFINED
constexpr uint32_t FILE_ATTRIBUTE_READONLY = 0x00000001;
constexpr uint32_t FILE_ATTRIBUTE_HIDDEN = 0x00000002;
constexpr uint32_t FILE_ATTRIBUTE_SYSTEM = 0x00000004;
constexpr uint32_t FILE_ATTRIBUTE_DIRECTORY = 0x00000010;
constexpr uint32_t FILE_ATTRIBUTE_ARCHIVE = 0x00000020;
constexpr uint32_t FILE_ATTRIBUTE_NORMAL = 0x00000080;
#endif

#ifndef QB_WIN32_FIND_DATAW_DEFINED
#define QB_WIN32_FIND_DATAW_DEFINED
// Names are UTF-8; cFileName is cut at 260 UTF-16 units.
struct WIN32_FIND_DATAW {
  uint32_t dwFileAttributes = 0;
  FILETIME ftCreationTime;
  FILETIME ftLastAccessTime;
  FILETIME ftLastWriteTime;
  uint32_t nFileSizeHigh = 0;
  uint32_t nFileSizeLow = 0;
  // Reserved words and the 8.3 name are never filled: they read as zero and
  // as one shared empty name and cost a record nothing.
  static constexpr uint32_t dwReserved0 = 0;
  static constexpr uint32_t dwReserved1 = 0;
  std::string cFileName;
  static inline const std::string cAlternateFileName{};

  int64_t FileSize() const { return static_cast<int64_t>((uint64_t{nFileSizeHigh} << 32) | nFileSizeLow); }
  void SetFileSize(int64_t size) {
    nFileSizeHigh = static_cast<uint32_t>(static_cast<uint64_t>(size) >> 32);
    nFileSizeLow = static_cast<uint32_t>(size);
  }
};
#endif
