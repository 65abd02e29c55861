// MTP date text, time_t and VT_DATE.
#include "platform/portable/mtp/mtp_time.h"

#include <cstdio>
#include <ctime>

#include "platform/portable/portable.h"
#include "platform/system/clock.h"

namespace qb::portable::mtp {
namespace {

// FILETIME of 1970-01-01 in 100-ns units since 1601.
constexpr uint64_t kUnixEpochTicks = 116444736000000000ull;
constexpr uint64_t kTicksPerSecond = 10000000ull;

bool Digits(const std::string& s, size_t pos, size_t n, int* out) {
  if (pos + n > s.size()) return false;
  int v = 0;
  for (size_t i = pos; i < pos + n; ++i) {
    if (s[i] < '0' || s[i] > '9') return false;
    v = v * 10 + (s[i] - '0');
  }
  *out = v;
  return true;
}

bool ValidFields(int y, int mo, int d, int h, int mi, int s) {
  static const int kDays[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (y < 1601 || y > 9999 || mo < 1 || mo > 12 || d < 1 || h > 23 || mi > 59 || s > 59) return false;
  if (d > kDays[mo - 1]) return false;
  bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
  return !(mo == 2 && d == 29 && !leap);
}

// The zone suffix at `pos`: none (local), "Z", "+hhmm" / "-hhmm".
bool ParseZone(const std::string& s, size_t pos, bool* local, int* offsetSeconds) {
  *local = pos == s.size();
  *offsetSeconds = 0;
  if (*local) return true;
  if (s[pos] == 'Z' && pos + 1 == s.size()) return true;
  if ((s[pos] != '+' && s[pos] != '-') || s.size() != pos + 5) return false;
  int hh, mm;
  if (!Digits(s, pos + 1, 2, &hh) || !Digits(s, pos + 3, 2, &mm) || hh > 23 || mm > 59) return false;
  *offsetSeconds = (hh * 3600 + mm * 60) * (s[pos] == '-' ? -1 : 1);
  return true;
}

}  // namespace

bool ParseMtpDate(const std::string& text, int64_t* unixSeconds) {
  int y, mo, d, h, mi, s;
  if (text.size() < 15 || text[8] != 'T') return false;
  if (!Digits(text, 0, 4, &y) || !Digits(text, 4, 2, &mo) || !Digits(text, 6, 2, &d) || !Digits(text, 9, 2, &h) ||
      !Digits(text, 11, 2, &mi) || !Digits(text, 13, 2, &s))
    return false;
  if (!ValidFields(y, mo, d, h, mi, s)) return false;
  size_t pos = 15;
  if (pos < text.size() && text[pos] == '.') {
    int tenth;
    if (!Digits(text, pos + 1, 1, &tenth)) return false;
    pos += 2;
  }
  bool local;
  int offset;
  if (!ParseZone(text, pos, &local, &offset)) return false;
  if (local) {
    struct tm tm = {};
    tm.tm_year = y - 1900;
    tm.tm_mon = mo - 1;
    tm.tm_mday = d;
    tm.tm_hour = h;
    tm.tm_min = mi;
    tm.tm_sec = s;
    tm.tm_isdst = -1;
    time_t t = mktime(&tm);
    if (t == static_cast<time_t>(-1) && !(y == 1969 && mo == 12 && d == 31)) return false;
    *unixSeconds = static_cast<int64_t>(t);
    return true;
  }
  *unixSeconds = qb::sys::DaysFromCivil(y, static_cast<unsigned>(mo), static_cast<unsigned>(d)) * 86400 + h * 3600 + mi * 60 + s - offset;
  return true;
}

std::string FormatMtpDate(int64_t unixSeconds) {
  time_t t = static_cast<time_t>(unixSeconds);
  struct tm tm = {};
  if (!localtime_r(&t, &tm)) return std::string();
  char buf[32];
  std::snprintf(buf, sizeof buf, "%04d%02d%02dT%02d%02d%02d", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                tm.tm_hour, tm.tm_min, tm.tm_sec);
  return buf;
}

bool UnixToVariantDate(int64_t unixSeconds, double* date) {
  if (unixSeconds < -11644473600ll) return false;  // before 1601
  if (unixSeconds > 253402300799ll) return false;  // after 9999: no variant date, and no FILETIME to reckon in
  return FileTimeToVariantTime(qb::sys::UnixToFileTime(unixSeconds), date);
}

bool VariantDateToUnix(double date, int64_t* unixSeconds) {
  FILETIME ft;
  if (!VariantTimeToFileTime(date, &ft)) return false;
  int64_t ticks = static_cast<int64_t>(ft.Value()) - static_cast<int64_t>(kUnixEpochTicks);
  // Whole seconds, rounding toward minus infinity.
  int64_t secs = ticks / static_cast<int64_t>(kTicksPerSecond);
  if (ticks % static_cast<int64_t>(kTicksPerSecond) < 0) --secs;
  *unixSeconds = secs;
  return true;
}

bool PropVariantToUnix(const PROPVARIANT& value, int64_t* unixSeconds) {
  if (value.vt == VT_DATE && std::holds_alternative<double>(value.value))
    return VariantDateToUnix(std::get<double>(value.value), unixSeconds);
  if (value.vt == VT_FILETIME && std::holds_alternative<FILETIME>(value.value)) {
    int64_t ticks = static_cast<int64_t>(std::get<FILETIME>(value.value).Value()) - static_cast<int64_t>(kUnixEpochTicks);
    int64_t secs = ticks / static_cast<int64_t>(kTicksPerSecond);
    if (ticks % static_cast<int64_t>(kTicksPerSecond) < 0) --secs;
    *unixSeconds = secs;
    return true;
  }
  return false;
}

}  // namespace qb::portable::mtp
