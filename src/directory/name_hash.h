#pragma once
// Name hash of the tree: CRC-32 (reflected polynomial 0xEDB88320, initial
// value 0xFFFFFFFF, final complement) over the low byte of each UTF-16 code
// unit of the name. Case-sensitive. Null or empty gives 0; "abc" gives
// 0x352441C2.
#include <cstdint>
#include <string_view>

namespace qb::directory {

uint32_t NameHash(const char* utf8);
uint32_t NameHash(std::string_view utf8);

}  // namespace qb::directory
