#pragma once
// A PROPVARIANT as text for the device library's log lines.
#include <cstddef>
#include <string>

#include "platform/system/wintypes.h"

// Writes the value into `output` (cut to `capacity` bytes less one, whole
// characters only, always terminated) and returns `output`.
//   VT_EMPTY, VT_NULL, VT_VOID: empty. Integers "%i" / "%li" / "%u" / "%lu" /
//   "%lli" / "%llu", VT_R4 and VT_R8 "%f", VT_DATE "YYYY-MM-DD hh:mm:ss",
//   strings quoted ("..." for a narrow string that is not valid text),
//   VT_ERROR its name, VT_BOOL "TRUE"/"FALSE", VT_UNKNOWN "0x%016llX",
//   VT_FILETIME "%08x:%08x" (high, low), VT_CLSID its name, vectors and
//   arrays "[V:n] " / "[A:n] " with at most 16 elements joined by ", " or
//   "..." when empty, anything else "<vt=%d>".
const char* FormatPropVariant(const PROPVARIANT& value, char* output, size_t capacity);

// The same, whole, as a string.
std::string FormatPropVariant(const PROPVARIANT& value);
