// MTP format codes, content types and storage descriptions.
#include "platform/portable/mtp/mtp_formats.h"

#include <cctype>

#include "platform/system/wpd_keys.h"

namespace qb::portable::mtp {
namespace {

struct ExtensionFormat {
  const char* extension;
  uint16_t code;
};

// Extensions of the formats devices index by type. Lower case.
constexpr ExtensionFormat kExtensions[] = {
    {"txt", 0x3004},  {"htm", 0x3005},  {"html", 0x3005}, {"wav", 0x3008},  {"mp3", 0x3009},  {"avi", 0x300A},
    {"mpg", 0x300B},  {"mpeg", 0x300B}, {"asf", 0x300C},  {"mov", 0x300D},  {"jpg", 0x3801},  {"jpeg", 0x3801},
    {"tif", 0x380D},  {"tiff", 0x380D}, {"bmp", 0x3804},  {"gif", 0x3807},  {"png", 0x380B},  {"jp2", 0x380F},
    {"jpx", 0x3810},  {"wma", 0xB901},  {"ogg", 0xB902},  {"aac", 0xB903},  {"flac", 0xB906}, {"wmv", 0xB981},
    {"mp4", 0xB982},  {"m4a", 0xB982},  {"m4v", 0xB982},  {"3gp", 0xB984},  {"vcf", 0xBB83},  {"ics", 0xBE03},
    {"xml", 0xBA82},  {"doc", 0xBA83},  {"docx", 0xBA83}, {"xls", 0xBA85},  {"xlsx", 0xBA85}, {"ppt", 0xBA86},
    {"pptx", 0xBA86}, {"m3u", 0xBA11},  {"pla", 0xBA05},
};

bool InRange(uint16_t code, uint16_t lo, uint16_t hi) { return code >= lo && code <= hi; }

}  // namespace

GUID FormatGuidOf(uint16_t formatCode) { return QbWpdFormat(static_cast<uint32_t>(formatCode) << 16); }

bool FormatCodeOf(const GUID& format, uint16_t* formatCode) {
  GUID family = QbWpdFormat(format.Data1);
  if (!(family == format) || (format.Data1 & 0xFFFFu) != 0) return false;
  *formatCode = static_cast<uint16_t>(format.Data1 >> 16);
  return true;
}

GUID ContentTypeOf(uint16_t code) {
  if (code == kFormatAssociation) return WPD_CONTENT_TYPE_FOLDER;
  if (InRange(code, 0x3800, 0x38FF) || code == 0xB881) return WPD_CONTENT_TYPE_IMAGE;
  if (code == 0x3008 || code == 0x3009 || InRange(code, 0xB900, 0xB97F)) return WPD_CONTENT_TYPE_AUDIO;
  if (code == 0x300A || code == 0x300B || code == 0x300C || code == 0x300D || InRange(code, 0xB980, 0xB9FF))
    return WPD_CONTENT_TYPE_VIDEO;
  if (InRange(code, 0xBA05, 0xBA1F)) return WPD_CONTENT_TYPE_PLAYLIST;
  if (code == 0xBB82 || code == 0xBB83 || code == 0xBB81) return WPD_CONTENT_TYPE_CONTACT;
  if (code == 0x3004 || code == 0x3005 || InRange(code, 0xBA80, 0xBA8F)) return WPD_CONTENT_TYPE_DOCUMENT;
  return WPD_CONTENT_TYPE_UNSPECIFIED;
}

uint16_t FormatForFileName(const std::string& fileName) {
  size_t dot = fileName.rfind('.');
  if (dot == std::string::npos || dot + 1 == fileName.size()) return kFormatUndefined;
  std::string ext = fileName.substr(dot + 1);
  for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  for (const auto& e : kExtensions)
    if (ext == e.extension) return e.code;
  return kFormatUndefined;
}

uint32_t WpdStorageType(uint16_t mtpStorageType) {
  return mtpStorageType <= WPD_STORAGE_TYPE_REMOVABLE_RAM ? uint32_t{mtpStorageType}
                                                          : uint32_t{WPD_STORAGE_TYPE_UNDEFINED};
}

uint32_t WpdAccessCapability(uint16_t mtpAccessCapability) {
  // MTP: 0 read-write, 1 read-only without deletion, 2 read-only with deletion.
  return mtpAccessCapability <= 2 ? mtpAccessCapability
                                  : static_cast<uint32_t>(WPD_STORAGE_ACCESS_CAPABILITY_READ_ONLY_WITHOUT_OBJECT_DELETION);
}

std::string FileSystemTypeText(uint16_t mtpFilesystemType) {
  switch (mtpFilesystemType) {
    case 1: return "Generic Flat";
    case 2: return "Generic Hierarchical";
    case 3: return "DCF";
    default: return "Undefined";
  }
}

bool FormatStaysBelow4GiB(uint16_t formatCode) {
  switch (formatCode) {
    case kFormatAssociation:
    case 0x3004:  // text
    case 0x3005:  // HTML
    case 0xBB82: case 0xBB83:  // vCard 2, 3
    case 0xBE02: case 0xBE03:  // vCalendar 1, 2
      return true;
    default:  // pictures: 0x3801 EXIF/JPEG to 0x3810 JPX
      return formatCode >= 0x3801 && formatCode <= 0x3810;
  }
}

}  // namespace qb::portable::mtp
