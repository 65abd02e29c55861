#pragma once
// Names of interface ids and portable-device keys for log lines.
#include <cstdint>

#include "platform/system/wintypes.h"

// The property id of a plain GUID (an interface id, format, content type,
// event): no ".%lu" suffix.
constexpr uint32_t kNoPropertyId = 0xFFFFFFFFu;

// The public name of an interface id ("IID_IWiaDevMgr"), class id, or
// portable-device key, format, content type, command or event
// ("WPD_OBJECT_NAME"). A key matches on GUID and property id; a plain GUID
// matches when the id is kNoPropertyId or 0. Unknown: the braced GUID, plus
// ".%lu" with the id unless it is kNoPropertyId. With a text, the trace line
// "<text> <name>" is written too. One buffer per thread: copy before the next
// call.
const char* GuidToName(const char* text, const GUID& guid, uint32_t propertyId);
