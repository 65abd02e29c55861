#include "shell/place_text.h"

#include <cctype>

namespace qb::shell::places {
namespace {

// Length of the UTF-8 sequence starting with `lead`, 0 when it cannot start one.
size_t SequenceLength(unsigned char lead) {
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) return 2;
  if (lead >= 0xE0 && lead <= 0xEF) return 3;
  if (lead >= 0xF0 && lead <= 0xF4) return 4;
  return 0;
}

bool Continuation(unsigned char c) { return (c & 0xC0) == 0x80; }

}  // namespace

bool IsCleanUtf8(std::string_view text) {
  for (size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i]);
    const size_t n = SequenceLength(lead);
    if (n == 0 || lead == 0 || i + n > text.size()) return false;
    for (size_t k = 1; k < n; ++k)
      if (!Continuation(static_cast<unsigned char>(text[i + k]))) return false;
    const auto second = n > 1 ? static_cast<unsigned char>(text[i + 1]) : 0;
    // Overlong forms, surrogates and code points past U+10FFFF.
    if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second > 0x9F) || (lead == 0xF0 && second < 0x90) ||
        (lead == 0xF4 && second > 0x8F))
      return false;
    i += n;
  }
  return true;
}

bool IsSchemeName(std::string_view name) {
  if (name.empty() || !std::isalpha(static_cast<unsigned char>(name[0]))) return false;
  for (char c : name)
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '+' && c != '-' && c != '.') return false;
  return true;
}

std::string OneLine(std::string_view text) {
  std::string line;
  for (char c : text) line += static_cast<unsigned char>(c) < 0x20 || c == 0x7F ? ' ' : c;
  return line;
}

std::string XmlEscaped(std::string_view text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      default: out += c;
    }
  }
  return out;
}

}  // namespace qb::shell::places
