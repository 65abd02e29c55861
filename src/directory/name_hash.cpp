#include "directory/name_hash.h"

#include <array>

#include "common/strings.h"

namespace qb::directory {
namespace {

constexpr std::array<uint32_t, 256> MakeTable() {
  std::array<uint32_t, 256> table{};
  for (uint32_t n = 0; n < 256; ++n) {
    uint32_t c = n;
    for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
    table[n] = c;
  }
  return table;
}

constexpr std::array<uint32_t, 256> kTable = MakeTable();

bool IsAscii(std::string_view s) {
  for (char c : s)
    if (static_cast<unsigned char>(c) >= 0x80) return false;
  return true;
}

}  // namespace

uint32_t NameHash(std::string_view utf8) {
  if (utf8.empty()) return 0;
  uint32_t crc = 0xFFFFFFFFu;
  auto step = [&crc](uint8_t byte) { crc = kTable[(crc ^ byte) & 0xFF] ^ (crc >> 8); };
  if (IsAscii(utf8)) {
    for (char c : utf8) step(static_cast<uint8_t>(c));
  } else {
    for (char16_t unit : qb::ToUtf16(utf8)) step(static_cast<uint8_t>(unit & 0xFF));
  }
  return crc ^ 0xFFFFFFFFu;
}

uint32_t NameHash(const char* utf8) { return utf8 ? NameHash(std::string_view(utf8)) : 0; }

}  // namespace qb::directory
