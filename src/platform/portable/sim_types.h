#pragma once
// What kind of object a simulated file is, by its name.
#include <string>

#include "platform/system/wintypes.h"

namespace qb::portable::sim {

// WPD_CONTENT_TYPE_FOLDER for folders; WPD_CONTENT_TYPE_IMAGE for pictures
// (by extension, ASCII case ignored); else WPD_CONTENT_TYPE_UNSPECIFIED.
GUID ContentTypeFor(const std::string& name, bool folder);
// WPD_OBJECT_FORMAT_* by extension; PROPERTIES_ONLY for folders.
GUID FormatFor(const std::string& name, bool folder);

}  // namespace qb::portable::sim
