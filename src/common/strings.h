#pragma once
// Text helpers. Text is UTF-8 inside the program; where the design fixes a
// capacity in characters it counts UTF-16 code units, and the checked copy,
// concatenate and format helpers cut there: what does not fit is cut to the
// capacity less one unit and the cut is logged under the helper's tag.
#include <cstdarg>
#include <cstddef>
#include <string>
#include <string_view>

namespace qb {

constexpr size_t kMaxPath = 260;      // names and paths
constexpr size_t kMaxFullName = 520;  // the tree's full names

// Length in UTF-16 code units of UTF-8 text (invalid bytes count as one each).
size_t Utf16Length(std::string_view utf8);
// The longest prefix of whole characters that fits in `units` UTF-16 units.
std::string_view CutToUtf16(std::string_view utf8, size_t units);

std::u16string ToUtf16(std::string_view utf8);
std::string ToUtf8(std::u16string_view utf16);

// Case-insensitive in A-Z only, as name comparisons of the tree and cache.
char ToUpperAZ(char c);
std::string ToUpperAZ(std::string_view s);
int CompareNoCaseAZ(std::string_view a, std::string_view b);
bool EqualsNoCaseAZ(std::string_view a, std::string_view b);

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string FormatV(const char* format, va_list args);

}  // namespace qb

// Checked helpers, named after the functions they stand for. Each returns
// true when everything fit. A null destination or source copies nothing and
// is logged ("strDestination=NULL", "strSource=NULL").
bool _TcsCpy(std::string* dst, size_t capacity, const char* src);
bool _TcsNCpy(std::string* dst, size_t capacity, const char* src, size_t count);
bool _TcsCat(std::string* dst, size_t capacity, const char* src);
bool _Stprintf(std::string* dst, size_t capacity, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
