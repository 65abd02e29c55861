#pragma once
// MTP object formats, storage types and file-system types in WPD terms.
// Pure tables: the WPD format GUID carries the MTP format code in the top
// half of its first field, so the mapping is exact both ways.
#include <cstdint>
#include <string>

#include "platform/system/wintypes.h"

namespace qb::portable::mtp {

// MTP object format codes used by name here.
inline constexpr uint16_t kFormatUndefined = 0x3000;
inline constexpr uint16_t kFormatAssociation = 0x3001;  // a folder

// WPD_OBJECT_FORMAT_* of an MTP format code (a folder gives
// WPD_OBJECT_FORMAT_PROPERTIES_ONLY, as WPD reports MTP folders).
GUID FormatGuidOf(uint16_t formatCode);
// The MTP format code of a WPD format GUID; false for a GUID outside the
// MTP family (WPD_OBJECT_FORMAT_ALL, other GUIDs).
bool FormatCodeOf(const GUID& format, uint16_t* formatCode);
// WPD_CONTENT_TYPE_* of a format: folder, image, audio, video, playlist,
// contact, document, else unspecified.
GUID ContentTypeOf(uint16_t formatCode);
// The format to announce for a new file, from its name's extension
// (case-insensitive); kFormatUndefined when unknown.
uint16_t FormatForFileName(const std::string& fileName);
// True for formats whose objects stay far below 4 GiB (folders, pictures,
// text, contacts, calendars): the 32-bit size of a whole-device property
// list is taken as exact for them.
bool FormatStaysBelow4GiB(uint16_t formatCode);

// WPD_STORAGE_TYPE of an MTP storage type (the same numbers; unknown values
// become undefined) and WPD_STORAGE_ACCESS_CAPABILITY likewise.
uint32_t WpdStorageType(uint16_t mtpStorageType);
uint32_t WpdAccessCapability(uint16_t mtpAccessCapability);
// WPD_STORAGE_FILE_SYSTEM_TYPE text of an MTP file-system type.
std::string FileSystemTypeText(uint16_t mtpFilesystemType);

}  // namespace qb::portable::mtp
