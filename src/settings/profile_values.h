#pragma once
// Value names and text reads shared by the profile reader, enumerator and
// machine copy.
#include <string>

#include "platform/registry/registry.h"

namespace qb::settings {

// "DriveLetter" for card 1, "DriveLetter2".."DriveLetter4" for cards 2 to 4.
const char* DriveLetterValueName(int card);

// A REG_SZ profile value, read with the limit of 1038 bytes of UTF-16 text
// (518 characters); empty when missing or of another type.
std::string ReadProfileText(const qb::reg::Key& key, const char* name);

}  // namespace qb::settings
