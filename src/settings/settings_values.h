#pragma once
// Small helpers shared by the settings and profile readers: one value read
// from one key, and text stored into a caller's buffer within its capacity.
#include <cstddef>
#include <string>
#include <string_view>

#include "platform/registry/registry.h"

namespace qb::settings {

// A REG_DWORD / REG_SZ value of the user's settings key; false when the key
// or value is missing or the value has another type.
bool ReadUserDword(const char* name, DWORD* value);
bool ReadUserString(const char* name, std::string* text);

// Stores text cut to capacity - 1 UTF-16 units; returns buffer->c_str(), or
// null when the stored text is empty.
const char* StoreText(std::string* buffer, size_t capacity, std::string_view text);

// Blanks and tabs off both ends.
std::string_view TrimBlanks(std::string_view text);

}  // namespace qb::settings
