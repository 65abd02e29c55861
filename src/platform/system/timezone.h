#pragma once
// Time-zone information in the form the program's design reads it: the bias
// in minutes (UTC = local time + bias), the standard and daylight biases and
// the two transition rules in month / week / weekday form (a SYSTEMTIME whose
// wYear is 0, wMonth the month, wDayOfWeek the weekday with 0 = Sunday, wDay
// the week 1-5 where 5 means the last, wHour the local hour).
//
// Source: the C library's zone. TZ holding a POSIX rule
// ("CET-1CEST,M3.5.0,M10.5.0/3") is parsed directly; a zone name (TZ=Europe/Berlin,
// TZ=:Europe/Berlin, or /etc/localtime without TZ) is read from the zone file
// under /usr/share/zoneinfo, whose last line holds the zone's POSIX rule.
// Transition hours outside 0-23 (allowed by POSIX) are clamped to 0-23, and
// rules in day-of-year form (Jn, n) count as no daylight rule.
#include <cstdint>
#include <string>

#include "platform/system/wintypes.h"

namespace qb::sys {

constexpr uint32_t TIME_ZONE_ID_UNKNOWN = 0;   // the zone has no daylight-saving rule
constexpr uint32_t TIME_ZONE_ID_STANDARD = 1;  // standard time now
constexpr uint32_t TIME_ZONE_ID_DAYLIGHT = 2;  // daylight-saving time now
constexpr uint32_t TIME_ZONE_ID_INVALID = 0xFFFFFFFF;

struct TIME_ZONE_INFORMATION {
  int32_t Bias = 0;  // minutes, UTC = local + Bias
  std::string StandardName;
  SYSTEMTIME StandardDate;  // end of daylight time; zero without a rule
  int32_t StandardBias = 0;
  std::string DaylightName;
  SYSTEMTIME DaylightDate;  // start of daylight time; zero without a rule
  int32_t DaylightBias = 0;  // usually -60
};

struct DYNAMIC_TIME_ZONE_INFORMATION : TIME_ZONE_INFORMATION {
  std::string TimeZoneKeyName;  // the zone's name (TZ or the zone file's name)
  // Set when the zone has no daylight-saving rule: there is no separate
  // "automatic adjustment" switch on this system.
  bool DynamicDaylightTimeDisabled = false;
};

// Parses a POSIX TZ rule; false when it is malformed.
bool ParsePosixTimeZone(const std::string& rule, DYNAMIC_TIME_ZONE_INFORMATION* out);

// The POSIX rule of the current zone: TZ when it is one, else the last line
// of the zone file. Empty when none can be found.
std::string CurrentPosixTimeZone();

// The current zone; the answer is TIME_ZONE_ID_UNKNOWN without a daylight
// rule, otherwise STANDARD or DAYLIGHT for the present moment, and
// TIME_ZONE_ID_INVALID (errno set) when the zone cannot be read.
uint32_t GetTimeZoneInformation(TIME_ZONE_INFORMATION* info);
uint32_t GetDynamicTimeZoneInformation(DYNAMIC_TIME_ZONE_INFORMATION* info);

// Day of the month on which the transition falls in the given year (the
// rule's week 5 meaning the last occurrence); 0 when the rule is not valid.
int TransitionDay(int year, const SYSTEMTIME& rule);

// UTC to local file time by the present total bias (bias plus the daylight
// bias while daylight time is in effect now), as the Windows call does.
bool FileTimeToLocalFileTime(const FILETIME& utc, FILETIME* local);

}  // namespace qb::sys
