#include "platform/system/timezone.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iterator>
#include <unistd.h>

#include "platform/system/clock.h"

namespace qb::sys {
namespace {

// Reads the POSIX rule from the end of a zone file (format version 2 and
// later: the last line of the file). Empty when there is none.
std::string RuleFromZoneFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return {};
  std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (data.size() < 6 || data.compare(0, 4, "TZif") != 0 || data[4] < '2') return {};
  if (data.back() != '\n') return {};
  const size_t start = data.rfind('\n', data.size() - 2);
  if (start == std::string::npos) return {};
  return data.substr(start + 1, data.size() - start - 2);
}

std::string ZoneDir() {
  const char* dir = getenv("TZDIR");
  return dir && *dir ? dir : "/usr/share/zoneinfo";
}

// A rule whose "daylight" time is behind its standard time (Europe/Dublin:
// "IST-1GMT0,M10.5.0,M3.5.0/1", winter is the daylight part) is turned into
// the usual form: the earlier offset is standard, the later one daylight,
// and the transition dates change places. Each date keeps its hour, which is
// already given in the local time in force before that transition.
void SwapNegativeDaylight(DYNAMIC_TIME_ZONE_INFORMATION* zone) {
  zone->Bias += zone->DaylightBias;
  zone->DaylightBias = -zone->DaylightBias;
  std::swap(zone->StandardName, zone->DaylightName);
  std::swap(zone->StandardDate, zone->DaylightDate);
}

class RuleParser {
 public:
  explicit RuleParser(const std::string& text) : s_(text) {}

  bool Parse(DYNAMIC_TIME_ZONE_INFORMATION* out) {
    std::string stdName, dstName;
    int stdOffset = 0;
    if (!Name(&stdName) || !Offset(&stdOffset)) return false;
    out->StandardName = stdName;
    out->Bias = stdOffset / 60;
    out->StandardBias = 0;
    if (AtEnd()) return true;
    if (!Name(&dstName)) return false;
    int dstOffset = stdOffset - 3600;
    if (!AtEnd() && Peek() != ',' && !Offset(&dstOffset)) return false;
    out->DaylightName = dstName;
    out->DaylightBias = (dstOffset - stdOffset) / 60;
    std::string rest = AtEnd() ? std::string(",M3.2.0,M11.1.0") : s_.substr(pos_);
    RuleParser rules(rest);
    if (!rules.Expect(',') || !rules.Date(&out->DaylightDate) || !rules.Expect(',') ||
        !rules.Date(&out->StandardDate) || !rules.AtEnd())
      return false;
    if (out->DaylightBias > 0) SwapNegativeDaylight(out);
    return true;
  }

 private:
  bool AtEnd() const { return pos_ >= s_.size(); }
  char Peek() const { return AtEnd() ? '\0' : s_[pos_]; }
  bool Expect(char c) {
    if (Peek() != c) return false;
    ++pos_;
    return true;
  }

  bool Name(std::string* name) {
    if (Expect('<')) {
      const size_t end = s_.find('>', pos_);
      if (end == std::string::npos) return false;
      *name = s_.substr(pos_, end - pos_);
      pos_ = end + 1;
      return !name->empty();
    }
    const size_t start = pos_;
    while (!AtEnd() && std::isalpha(static_cast<unsigned char>(Peek()))) ++pos_;
    *name = s_.substr(start, pos_ - start);
    return name->size() >= 3;
  }

  bool Number(int* value, int maxDigits) {
    int digits = 0;
    *value = 0;
    while (!AtEnd() && std::isdigit(static_cast<unsigned char>(Peek())) && digits < maxDigits) {
      *value = *value * 10 + (Peek() - '0');
      ++pos_;
      ++digits;
    }
    return digits > 0;
  }

  // [+-]hh[:mm[:ss]] in seconds.
  bool Seconds(int* seconds, int maxHourDigits) {
    int sign = 1;
    if (Expect('-')) sign = -1;
    else Expect('+');
    int h = 0, m = 0, sec = 0;
    if (!Number(&h, maxHourDigits)) return false;
    if (Expect(':')) {
      if (!Number(&m, 2)) return false;
      if (Expect(':') && !Number(&sec, 2)) return false;
    }
    *seconds = sign * (h * 3600 + m * 60 + sec);
    return true;
  }

  bool Offset(int* seconds) { return Seconds(seconds, 2); }

  // Mm.w.d[/time]; day-of-year forms are not representable.
  bool Date(SYSTEMTIME* rule) {
    int month = 0, week = 0, day = 0;
    if (!Expect('M') || !Number(&month, 2) || !Expect('.') || !Number(&week, 1) ||
        !Expect('.') || !Number(&day, 1))
      return false;
    if (month < 1 || month > 12 || week < 1 || week > 5 || day > 6) return false;
    int time = 2 * 3600;
    if (Expect('/') && !Seconds(&time, 3)) return false;
    const int hour = std::clamp(time / 3600, 0, 23);
    *rule = SYSTEMTIME{};
    rule->wMonth = static_cast<uint16_t>(month);
    rule->wDayOfWeek = static_cast<uint16_t>(day);
    rule->wDay = static_cast<uint16_t>(week);
    rule->wHour = static_cast<uint16_t>(hour);
    rule->wMinute = static_cast<uint16_t>(time >= 0 && time < 24 * 3600 ? time / 60 % 60 : 0);
    return true;
  }

  const std::string& s_;
  size_t pos_ = 0;
};

bool LooksLikeRule(const std::string& tz) {
  return std::any_of(tz.begin(), tz.end(), [](char c) { return std::isdigit(static_cast<unsigned char>(c)); });
}

// The zone's name: TZ without a leading ':', or the target of /etc/localtime
// below the zone folder.
std::string ZoneName() {
  const char* tz = getenv("TZ");
  if (tz) return tz[0] == ':' ? tz + 1 : tz;
  char link[4096];
  const ssize_t n = readlink("/etc/localtime", link, sizeof link - 1);
  if (n <= 0) return "localtime";
  std::string target(link, static_cast<size_t>(n));
  const size_t at = target.find("zoneinfo/");
  return at == std::string::npos ? target : target.substr(at + 9);
}

int32_t PresentBias(const TIME_ZONE_INFORMATION& info, uint32_t id) {
  return info.Bias + (id == TIME_ZONE_ID_DAYLIGHT ? info.DaylightBias : info.StandardBias);
}

}  // namespace

bool ParsePosixTimeZone(const std::string& rule, DYNAMIC_TIME_ZONE_INFORMATION* out) {
  DYNAMIC_TIME_ZONE_INFORMATION parsed;
  if (!RuleParser(rule).Parse(&parsed)) return false;
  parsed.DynamicDaylightTimeDisabled = parsed.DaylightDate.wMonth == 0;
  *out = parsed;
  return true;
}

std::string CurrentPosixTimeZone() {
  const char* tz = getenv("TZ");
  if (tz && !*tz) return "UTC0";
  if (!tz) return RuleFromZoneFile("/etc/localtime");
  std::string name = tz[0] == ':' ? tz + 1 : tz;
  std::string fromFile = RuleFromZoneFile(name[0] == '/' ? name : ZoneDir() + "/" + name);
  if (!fromFile.empty()) return fromFile;
  return LooksLikeRule(name) ? name : std::string();
}

uint32_t GetDynamicTimeZoneInformation(DYNAMIC_TIME_ZONE_INFORMATION* info) {
  if (!info) {
    errno = EINVAL;
    return TIME_ZONE_ID_INVALID;
  }
  tzset();
  DYNAMIC_TIME_ZONE_INFORMATION zone;
  if (!ParsePosixTimeZone(CurrentPosixTimeZone(), &zone)) {
    // No readable rule: the C library's own offset, without daylight time.
    zone = DYNAMIC_TIME_ZONE_INFORMATION{};
    zone.Bias = static_cast<int32_t>(timezone / 60);
    zone.StandardName = tzname[0] ? tzname[0] : "";
    zone.DynamicDaylightTimeDisabled = true;
  }
  zone.TimeZoneKeyName = ZoneName();
  *info = zone;
  if (zone.DaylightDate.wMonth == 0) return TIME_ZONE_ID_UNKNOWN;
  const time_t now = time(nullptr);
  struct tm local{};
  localtime_r(&now, &local);
  // By the offset, not tm_isdst: with a negative daylight period the C
  // library calls winter the daylight time.
  const long biasNow = -local.tm_gmtoff / 60;
  return biasNow == zone.Bias + zone.DaylightBias ? TIME_ZONE_ID_DAYLIGHT : TIME_ZONE_ID_STANDARD;
}

uint32_t GetTimeZoneInformation(TIME_ZONE_INFORMATION* info) {
  if (!info) {
    errno = EINVAL;
    return TIME_ZONE_ID_INVALID;
  }
  DYNAMIC_TIME_ZONE_INFORMATION zone;
  const uint32_t id = GetDynamicTimeZoneInformation(&zone);
  *info = zone;
  return id;
}

int TransitionDay(int year, const SYSTEMTIME& rule) {
  if (rule.wMonth < 1 || rule.wMonth > 12 || rule.wDay < 1 || rule.wDay > 5 ||
      rule.wDayOfWeek > 6 || year < 1601)
    return 0;
  SYSTEMTIME first{};
  first.wYear = static_cast<uint16_t>(year);
  first.wMonth = rule.wMonth;
  first.wDay = 1;
  FILETIME ft;
  SYSTEMTIME check;
  if (!SystemTimeToFileTime(first, &ft) || !FileTimeToSystemTime(ft, &check)) return 0;
  const int f = check.wDayOfWeek;
  const int d = rule.wDayOfWeek;
  int day = (f <= d ? 1 + (d - f) : 8 + (d - f)) + 7 * (rule.wDay - 1);
  SYSTEMTIME probe = first;
  probe.wDay = static_cast<uint16_t>(day);
  if (!SystemTimeToFileTime(probe, &ft)) day -= 7;  // no fifth one: the last is the fourth
  return day;
}

bool FileTimeToLocalFileTime(const FILETIME& utc, FILETIME* local) {
  if (!local) return false;
  TIME_ZONE_INFORMATION info;
  const uint32_t id = GetTimeZoneInformation(&info);
  if (id == TIME_ZONE_ID_INVALID) return false;
  const int64_t shifted = static_cast<int64_t>(utc.Value()) -
                          static_cast<int64_t>(PresentBias(info, id)) * 600'000'000LL;
  if (shifted < 0) return false;
  *local = FILETIME::From(static_cast<uint64_t>(shifted));
  return true;
}

}  // namespace qb::sys
