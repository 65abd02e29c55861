// libmtp file types and MTP format codes.
#include "platform/portable/mtp/mtp_filetype.h"

#ifdef QUILLBOX_HAVE_LIBMTP

namespace qb::portable::mtp {
namespace {

struct TypeCode {
  LIBMTP_filetype_t type;
  uint16_t code;
};

// One row per libmtp type; the first row of a code wins the reverse lookup.
constexpr TypeCode kTypes[] = {
    {LIBMTP_FILETYPE_FOLDER, 0x3001},      {LIBMTP_FILETYPE_WAV, 0x3008},
    {LIBMTP_FILETYPE_MP3, 0x3009},         {LIBMTP_FILETYPE_WMA, 0xB901},
    {LIBMTP_FILETYPE_OGG, 0xB902},         {LIBMTP_FILETYPE_AUDIBLE, 0xB904},
    {LIBMTP_FILETYPE_MP4, 0xB982},         {LIBMTP_FILETYPE_UNDEF_AUDIO, 0xB900},
    {LIBMTP_FILETYPE_WMV, 0xB981},         {LIBMTP_FILETYPE_AVI, 0x300A},
    {LIBMTP_FILETYPE_MPEG, 0x300B},        {LIBMTP_FILETYPE_ASF, 0x300C},
    {LIBMTP_FILETYPE_QT, 0x300D},          {LIBMTP_FILETYPE_UNDEF_VIDEO, 0xB980},
    {LIBMTP_FILETYPE_JPEG, 0x3801},        {LIBMTP_FILETYPE_JFIF, 0x3808},
    {LIBMTP_FILETYPE_TIFF, 0x380D},        {LIBMTP_FILETYPE_BMP, 0x3804},
    {LIBMTP_FILETYPE_GIF, 0x3807},         {LIBMTP_FILETYPE_PICT, 0x380A},
    {LIBMTP_FILETYPE_PNG, 0x380B},         {LIBMTP_FILETYPE_VCALENDAR1, 0xBE02},
    {LIBMTP_FILETYPE_VCALENDAR2, 0xBE03},  {LIBMTP_FILETYPE_VCARD2, 0xBB82},
    {LIBMTP_FILETYPE_VCARD3, 0xBB83},      {LIBMTP_FILETYPE_WINDOWSIMAGEFORMAT, 0xB881},
    {LIBMTP_FILETYPE_WINEXEC, 0x3003},     {LIBMTP_FILETYPE_TEXT, 0x3004},
    {LIBMTP_FILETYPE_HTML, 0x3005},        {LIBMTP_FILETYPE_FIRMWARE, 0xB802},
    {LIBMTP_FILETYPE_AAC, 0xB903},         {LIBMTP_FILETYPE_MEDIACARD, 0xB211},
    {LIBMTP_FILETYPE_FLAC, 0xB906},        {LIBMTP_FILETYPE_MP2, 0xB983},
    {LIBMTP_FILETYPE_M4A, 0xB982},         {LIBMTP_FILETYPE_DOC, 0xBA83},
    {LIBMTP_FILETYPE_XML, 0xBA82},         {LIBMTP_FILETYPE_XLS, 0xBA85},
    {LIBMTP_FILETYPE_PPT, 0xBA86},         {LIBMTP_FILETYPE_MHT, 0xBA84},
    {LIBMTP_FILETYPE_JP2, 0x380F},         {LIBMTP_FILETYPE_JPX, 0x3810},
    {LIBMTP_FILETYPE_ALBUM, 0xBA03},       {LIBMTP_FILETYPE_PLAYLIST, 0xBA05},
    {LIBMTP_FILETYPE_UNKNOWN, 0x3000},
};

}  // namespace

uint16_t FormatCodeOfFiletype(LIBMTP_filetype_t type) {
  for (const auto& row : kTypes)
    if (row.type == type) return row.code;
  return 0x3000;
}

LIBMTP_filetype_t FiletypeOfFormatCode(uint16_t code) {
  for (const auto& row : kTypes)
    if (row.code == code) return row.type;
  return LIBMTP_FILETYPE_UNKNOWN;
}

}  // namespace qb::portable::mtp

#endif  // QUILLBOX_HAVE_LIBMTP
