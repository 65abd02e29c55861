// Content types and formats of simulated objects by extension.
#include "platform/portable/sim_types.h"

#include "common/strings.h"
#include "platform/system/wpd_keys.h"

namespace qb::portable::sim {
namespace {

std::string Extension(const std::string& name) {
  size_t dot = name.rfind('.');
  return dot == std::string::npos ? std::string() : qb::ToUpperAZ(name.substr(dot + 1));
}

}  // namespace

GUID ContentTypeFor(const std::string& name, bool folder) {
  if (folder) return WPD_CONTENT_TYPE_FOLDER;
  std::string ext = Extension(name);
  for (const char* e : {"JPG", "JPEG", "JPE", "PNG", "GIF", "BMP", "TIF", "TIFF", "HEIC", "DNG"})
    if (ext == e) return WPD_CONTENT_TYPE_IMAGE;
  return WPD_CONTENT_TYPE_UNSPECIFIED;
}

GUID FormatFor(const std::string& name, bool folder) {
  if (folder) return WPD_OBJECT_FORMAT_PROPERTIES_ONLY;
  std::string ext = Extension(name);
  if (ext == "JPG" || ext == "JPEG" || ext == "JPE") return WPD_OBJECT_FORMAT_EXIF;
  if (ext == "PNG") return WPD_OBJECT_FORMAT_PNG;
  if (ext == "GIF") return WPD_OBJECT_FORMAT_GIF;
  if (ext == "BMP") return WPD_OBJECT_FORMAT_BMP;
  if (ext == "TIF" || ext == "TIFF") return WPD_OBJECT_FORMAT_TIFF;
  if (ext == "WAV") return WPD_OBJECT_FORMAT_WAVE;
  if (ext == "MP3") return WPD_OBJECT_FORMAT_MP3;
  if (ext == "WMA") return WPD_OBJECT_FORMAT_WMA;
  if (ext == "MP4" || ext == "M4A") return WPD_OBJECT_FORMAT_MP4;
  if (ext == "AVI") return WPD_OBJECT_FORMAT_AVI;
  if (ext == "TXT") return WPD_OBJECT_FORMAT_TEXT;
  if (ext == "HTM" || ext == "HTML") return WPD_OBJECT_FORMAT_HTML;
  return WPD_OBJECT_FORMAT_UNSPECIFIED;
}

}  // namespace qb::portable::sim
