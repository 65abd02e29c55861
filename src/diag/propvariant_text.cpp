#include "diag/propvariant_text.h"
#include "platform/system/clock.h"

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "diag/key_names.h"
#include "diag/trace.h"

namespace {

constexpr size_t kMaxElements = 16;

int64_t AsSigned(const PROPVARIANT& v) {
  if (auto* p = std::get_if<int64_t>(&v.value)) return *p;
  if (auto* p = std::get_if<uint64_t>(&v.value)) return static_cast<int64_t>(*p);
  if (auto* p = std::get_if<int32_t>(&v.value)) return *p;
  if (auto* p = std::get_if<bool>(&v.value)) return *p ? -1 : 0;
  if (auto* p = std::get_if<double>(&v.value)) return static_cast<int64_t>(*p);
  return 0;
}

uint64_t AsUnsigned(const PROPVARIANT& v) { return static_cast<uint64_t>(AsSigned(v)); }

double AsDouble(const PROPVARIANT& v) {
  if (auto* p = std::get_if<double>(&v.value)) return *p;
  return static_cast<double>(AsSigned(v));
}

const std::string& AsText(const PROPVARIANT& v) {
  static const std::string empty;
  auto* p = std::get_if<std::string>(&v.value);
  return p ? *p : empty;
}

// Whether the bytes are well-formed UTF-8 (lead byte, then its continuations).
bool IsValidUtf8(const std::string& s) {
  size_t i = 0;
  while (i < s.size()) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    size_t extra = 0;
    if (c >= 0xF0 && c <= 0xF4)
      extra = 3;
    else if (c >= 0xE0)
      extra = 2;
    else if (c >= 0xC2 && c <= 0xDF)
      extra = 1;
    else if (c >= 0x80)
      return false;
    if (c >= 0xF5) return false;
    if (i + extra >= s.size() && extra > 0) return false;
    for (size_t k = 1; k <= extra; ++k) {
      if ((static_cast<unsigned char>(s[i + k]) & 0xC0) != 0x80) return false;
    }
    i += extra + 1;
  }
  return true;
}

// An automation date: whole days since 1899-12-30; the fraction is the time
// of day, also for days before that (-1.25 is 1899-12-29 06:00).
std::string FormatOleDate(double date) {
  if (!std::isfinite(date) || std::fabs(date) > 3e6) return "<vt=7>";
  const double whole = std::trunc(date);
  const int64_t seconds = std::llround(std::fabs(date - whole) * 86400.0);
  const int64_t total =
      (qb::sys::DaysFromCivil(1899, 12, 30) + static_cast<int64_t>(whole)) * 86400 + seconds;
  const int64_t days = (total >= 0 ? total : total - 86399) / 86400;
  const int64_t inDay = total - days * 86400;
  int64_t y = 0;
  unsigned m = 0, d = 0;
  qb::sys::CivilFromDays(days, &y, &m, &d);
  char text[64];
  snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d", static_cast<int>(y), m, d,
           static_cast<int>(inDay / 3600), static_cast<int>(inDay / 60 % 60),
           static_cast<int>(inDay % 60));
  return text;
}

std::string Printf(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Printf(const char* format, ...) {
  char text[128];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  return text;
}

std::string FormatScalar(const PROPVARIANT& v, uint16_t vt);

std::string FormatVector(const PROPVARIANT& v) {
  const uint16_t base = v.vt & 0x0FFF;
  std::string text =
      Printf("[%c:%ld] ", (v.vt & VT_VECTOR) ? 'V' : 'A', static_cast<long>(v.elements.size()));
  if (v.elements.empty()) return text + "...";
  for (size_t i = 0; i < v.elements.size() && i < kMaxElements; ++i) {
    if (i > 0) text += ", ";
    const PROPVARIANT& element = v.elements[i];
    text += FormatScalar(element, element.vt != VT_EMPTY ? element.vt : base);
  }
  return text;
}

std::string FormatScalar(const PROPVARIANT& v, uint16_t vt) {
  switch (vt) {
    case VT_EMPTY:
    case VT_NULL:
    case VT_VOID:
      return {};
    case VT_I1:
      return Printf("%i", static_cast<int>(static_cast<int8_t>(AsSigned(v))));
    case VT_I2:
      return Printf("%i", static_cast<int>(static_cast<int16_t>(AsSigned(v))));
    case VT_I4:
    case VT_INT:
      return Printf("%li", static_cast<long>(static_cast<int32_t>(AsSigned(v))));
    case VT_UI1:
      return Printf("%u", static_cast<unsigned>(static_cast<uint8_t>(AsUnsigned(v))));
    case VT_UI2:
      return Printf("%u", static_cast<unsigned>(static_cast<uint16_t>(AsUnsigned(v))));
    case VT_UI4:
    case VT_UINT:
      return Printf("%lu", static_cast<unsigned long>(static_cast<uint32_t>(AsUnsigned(v))));
    case VT_I8:
      return Printf("%lli", static_cast<long long>(AsSigned(v)));
    case VT_UI8:
      return Printf("%llu", static_cast<unsigned long long>(AsUnsigned(v)));
    case VT_R4:
      return Printf("%f", static_cast<double>(static_cast<float>(AsDouble(v))));
    case VT_R8:
      return Printf("%lf", AsDouble(v));
    case VT_DATE:
      return FormatOleDate(AsDouble(v));
    case VT_BSTR:
    case VT_LPWSTR:
      return "\"" + AsText(v) + "\"";
    case VT_LPSTR:
      return IsValidUtf8(AsText(v)) ? "\"" + AsText(v) + "\"" : "...";
    case VT_ERROR:
      return CodeToName(static_cast<int32_t>(AsSigned(v)));
    case VT_BOOL: {
      const auto* b = std::get_if<bool>(&v.value);
      const bool isTrue = b ? *b : AsSigned(v) == VARIANT_TRUE;
      return isTrue ? "TRUE" : "FALSE";
    }
    case VT_UNKNOWN:
      return Printf("0x%016llX", static_cast<unsigned long long>(AsUnsigned(v)));
    case VT_FILETIME: {
      const auto* ft = std::get_if<FILETIME>(&v.value);
      const FILETIME value = ft ? *ft : FILETIME::From(AsUnsigned(v));
      return Printf("%08x:%08x", value.dwHighDateTime, value.dwLowDateTime);
    }
    case VT_CLSID: {
      const auto* g = std::get_if<GUID>(&v.value);
      return GuidToName(nullptr, g ? *g : GUID{}, kNoPropertyId);
    }
    default:
      return Printf("<vt=%d>", static_cast<int>(vt));
  }
}

}  // namespace

std::string FormatPropVariant(const PROPVARIANT& value) {
  if (value.vt & (VT_VECTOR | VT_ARRAY)) return FormatVector(value);
  return FormatScalar(value, value.vt);
}

const char* FormatPropVariant(const PROPVARIANT& value, char* output, size_t capacity) {
  if (!output || capacity == 0) return output;
  const std::string text = FormatPropVariant(value);
  size_t length = std::min(text.size(), capacity - 1);
  // Cut between characters, never inside one.
  while (length > 0 && length < text.size() &&
         (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80)
    --length;
  std::memcpy(output, text.data(), length);
  output[length] = '\0';
  return output;
}
