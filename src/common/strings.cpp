#include "common/strings.h"

#include <cstdio>
#include <vector>

#include "diag/trace.h"

namespace qb {
namespace {

// Bytes of the UTF-8 sequence starting with `lead`, or 0 when it is not a lead byte.
size_t SequenceLength(unsigned char lead) {
  if (lead < 0x80) return 1;
  if ((lead & 0xE0) == 0xC0) return 2;
  if ((lead & 0xF0) == 0xE0) return 3;
  if ((lead & 0xF8) == 0xF0) return 4;
  return 0;
}

// Decodes one character at `i`; invalid bytes decode as U+FFFD, one byte each.
char32_t Decode(std::string_view s, size_t* i) {
  const unsigned char lead = static_cast<unsigned char>(s[*i]);
  size_t len = SequenceLength(lead);
  if (len == 0 || *i + len > s.size()) {
    ++*i;
    return 0xFFFD;
  }
  char32_t cp = len == 1 ? lead : lead & (0xFF >> (len + 1));
  for (size_t k = 1; k < len; ++k) {
    const unsigned char c = static_cast<unsigned char>(s[*i + k]);
    if ((c & 0xC0) != 0x80) {
      ++*i;
      return 0xFFFD;
    }
    cp = (cp << 6) | (c & 0x3F);
  }
  // Overlong forms, surrogates and values past U+10FFFF are not UTF-8: taken
  // as they are, they would turn into other text (a NUL, a lone surrogate)
  // on the way to UTF-16 and back.
  static constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  if (cp < kSmallest[len] || (cp >= 0xD800 && cp < 0xE000) || cp > 0x10FFFF) {
    ++*i;
    return 0xFFFD;
  }
  *i += len;
  return cp;
}

void Encode(char32_t cp, std::string* out) {
  if (cp < 0x80) {
    out->push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out->push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out->push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out->push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

}  // namespace

size_t Utf16Length(std::string_view utf8) {
  size_t units = 0;
  for (size_t i = 0; i < utf8.size();) units += Decode(utf8, &i) >= 0x10000 ? 2 : 1;
  return units;
}

std::string_view CutToUtf16(std::string_view utf8, size_t units) {
  size_t used = 0;
  size_t i = 0;
  while (i < utf8.size()) {
    size_t next = i;
    const size_t width = Decode(utf8, &next) >= 0x10000 ? 2 : 1;
    if (used + width > units) break;
    used += width;
    i = next;
  }
  return utf8.substr(0, i);
}

std::u16string ToUtf16(std::string_view utf8) {
  std::u16string out;
  out.reserve(utf8.size());
  for (size_t i = 0; i < utf8.size();) {
    char32_t cp = Decode(utf8, &i);
    if (cp >= 0x10000) {
      cp -= 0x10000;
      out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
    } else {
      out.push_back(static_cast<char16_t>(cp));
    }
  }
  return out;
}

std::string ToUtf8(std::u16string_view utf16) {
  std::string out;
  out.reserve(utf16.size());
  for (size_t i = 0; i < utf16.size(); ++i) {
    char32_t cp = utf16[i];
    if (cp >= 0xD800 && cp < 0xDC00 && i + 1 < utf16.size() && utf16[i + 1] >= 0xDC00 &&
        utf16[i + 1] < 0xE000) {
      cp = 0x10000 + ((cp - 0xD800) << 10) + (utf16[i + 1] - 0xDC00);
      ++i;
    } else if (cp >= 0xD800 && cp < 0xE000) {
      cp = 0xFFFD;
    }
    Encode(cp, &out);
  }
  return out;
}

char ToUpperAZ(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

std::string ToUpperAZ(std::string_view s) {
  std::string out(s);
  for (char& c : out) c = ToUpperAZ(c);
  return out;
}

int CompareNoCaseAZ(std::string_view a, std::string_view b) {
  const size_t n = std::min(a.size(), b.size());
  for (size_t i = 0; i < n; ++i) {
    const unsigned char ca = static_cast<unsigned char>(ToUpperAZ(a[i]));
    const unsigned char cb = static_cast<unsigned char>(ToUpperAZ(b[i]));
    if (ca != cb) return ca < cb ? -1 : 1;
  }
  return a.size() == b.size() ? 0 : (a.size() < b.size() ? -1 : 1);
}

bool EqualsNoCaseAZ(std::string_view a, std::string_view b) {
  return a.size() == b.size() && CompareNoCaseAZ(a, b) == 0;
}

std::string FormatV(const char* format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  const int needed = vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  if (needed <= 0) return {};
  std::string out(static_cast<size_t>(needed), '\0');
  vsnprintf(out.data(), out.size() + 1, format, args);
  return out;
}

std::string Format(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string out = FormatV(format, args);
  va_end(args);
  return out;
}

}  // namespace qb

namespace {

// Stores `text` into `dst` cut to capacity - 1 units; true when nothing was cut.
bool StoreChecked(std::string* dst, size_t capacity, std::string text) {
  const size_t room = capacity == 0 ? 0 : capacity - 1;
  if (qb::Utf16Length(text) <= room) {
    *dst = std::move(text);
    return true;
  }
  *dst = std::string(qb::CutToUtf16(text, room));
  return false;
}

bool CheckArgs(const char* tag, const std::string* dst, const char* src) {
  if (!dst) {
    Trace(tag, "strDestination=NULL");
    return false;
  }
  if (!src) {
    Trace(tag, "strSource=NULL");
    return false;
  }
  return true;
}

}  // namespace

bool _TcsCpy(std::string* dst, size_t capacity, const char* src) {
  if (!CheckArgs("B1@_TcsCpy: ", dst, src)) return false;
  if (StoreChecked(dst, capacity, src)) return true;
  Trace("B1@_TcsCpy: ", "len=%d, src=\"%s\"", static_cast<int>(capacity), src);
  return false;
}

bool _TcsNCpy(std::string* dst, size_t capacity, const char* src, size_t count) {
  if (!CheckArgs("B2@_TcsNCpy: ", dst, src)) return false;
  std::string_view text = qb::CutToUtf16(src, count);
  if (StoreChecked(dst, capacity, std::string(text))) return true;
  Trace("B2@_TcsNCpy: ", "len=%d, count=%d, src=\"%s\"", static_cast<int>(capacity),
        static_cast<int>(count), src);
  return false;
}

bool _TcsCat(std::string* dst, size_t capacity, const char* src) {
  if (!CheckArgs("B4@_TcsCat: ", dst, src)) return false;
  const size_t need = qb::Utf16Length(*dst) + qb::Utf16Length(src) + 1;
  if (StoreChecked(dst, capacity, *dst + src)) return true;
  Trace("B4@_TcsCat: ", "len=%d, need=%d, src=\"%s\"", static_cast<int>(capacity),
        static_cast<int>(need), src);
  return false;
}

bool _Stprintf(std::string* dst, size_t capacity, const char* format, ...) {
  if (!CheckArgs("B3@_Stprintf: ", dst, format)) return false;
  va_list args;
  va_start(args, format);
  std::string text = qb::FormatV(format, args);
  va_end(args);
  const size_t need = qb::Utf16Length(text) + 1;
  if (StoreChecked(dst, capacity, std::move(text))) return true;
  Trace("B3@_Stprintf: ", "len=%d, need=%d, format=\"%s\"", static_cast<int>(capacity),
        static_cast<int>(need), format);
  return false;
}
