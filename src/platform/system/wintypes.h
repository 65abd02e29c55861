#pragma once
// The small Windows value types the program's design is written in: GUIDs,
// property keys, FILETIME/SYSTEMTIME and PROPVARIANT. Plain data, no behaviour
// beyond comparison; conversions live in clock.h.
#include <array>
#include <compare>
#include <cstdint>
#include <string>
#include <variant>
#include <vector>

struct GUID {
  uint32_t Data1 = 0;
  uint16_t Data2 = 0;
  uint16_t Data3 = 0;
  std::array<uint8_t, 8> Data4{};
  auto operator<=>(const GUID&) const = default;
};

struct PROPERTYKEY {
  GUID fmtid;
  uint32_t pid = 0;
  auto operator<=>(const PROPERTYKEY&) const = default;
};

// 100-ns intervals since 1601-01-01 UTC.
struct FILETIME {
  uint32_t dwLowDateTime = 0;
  uint32_t dwHighDateTime = 0;
  uint64_t Value() const { return (uint64_t{dwHighDateTime} << 32) | dwLowDateTime; }
  static FILETIME From(uint64_t v) {
    return FILETIME{static_cast<uint32_t>(v), static_cast<uint32_t>(v >> 32)};
  }
  bool operator==(const FILETIME&) const = default;
};

struct SYSTEMTIME {
  uint16_t wYear = 0;
  uint16_t wMonth = 0;
  uint16_t wDayOfWeek = 0;
  uint16_t wDay = 0;
  uint16_t wHour = 0;
  uint16_t wMinute = 0;
  uint16_t wSecond = 0;
  uint16_t wMilliseconds = 0;
  bool operator==(const SYSTEMTIME&) const = default;
};

// Variant types of PROPVARIANT that the portable-device layer uses.
enum VARTYPE : uint16_t {
  VT_EMPTY = 0, VT_NULL = 1, VT_I2 = 2, VT_I4 = 3, VT_R4 = 4, VT_R8 = 5,
  VT_DATE = 7, VT_BSTR = 8, VT_ERROR = 10, VT_BOOL = 11, VT_UNKNOWN = 13,
  VT_I1 = 16, VT_UI1 = 17, VT_UI2 = 18, VT_UI4 = 19, VT_I8 = 20, VT_UI8 = 21,
  VT_INT = 22, VT_UINT = 23, VT_VOID = 24, VT_LPSTR = 30, VT_LPWSTR = 31,
  VT_FILETIME = 64, VT_CLSID = 72,
  VT_VECTOR = 0x1000, VT_ARRAY = 0x2000,
};

constexpr int16_t VARIANT_TRUE = -1;
constexpr int16_t VARIANT_FALSE = 0;

// A PROPVARIANT as a tagged value. Text is UTF-8. VT_DATE holds the OLE
// automation date (days since 1899-12-30) in `value` as double. Vectors hold
// their elements in `elements` with `vt` carrying VT_VECTOR | element type.
struct PROPVARIANT {
  uint16_t vt = VT_EMPTY;
  std::variant<std::monostate, int64_t, uint64_t, double, bool, std::string, GUID, FILETIME, int32_t>
      value;
  std::vector<PROPVARIANT> elements;

  static PROPVARIANT Text(std::string s) { return {VT_LPWSTR, std::move(s), {}}; }
  static PROPVARIANT UI4(uint32_t v) { return {VT_UI4, uint64_t{v}, {}}; }
  static PROPVARIANT UI8(uint64_t v) { return {VT_UI8, v, {}}; }
  static PROPVARIANT I4(int32_t v) { return {VT_I4, int64_t{v}, {}}; }
  static PROPVARIANT Bool(bool v) { return {VT_BOOL, v, {}}; }
  static PROPVARIANT Guid(const GUID& g) { return {VT_CLSID, g, {}}; }
  static PROPVARIANT Date(double oleDate) { return {VT_DATE, oleDate, {}}; }
  static PROPVARIANT Error(int32_t hr) { return {VT_ERROR, hr, {}}; }
  static PROPVARIANT FileTime(FILETIME ft) { return {VT_FILETIME, ft, {}}; }
};
