#pragma once
// Wall-clock and monotonic time in the program's units: FILETIME (100 ns since
// 1601 UTC), SYSTEMTIME broken-down times, a millisecond tick count and a
// performance counter (CLOCK_MONOTONIC in nanoseconds).
#include <cstdint>
#include <ctime>

#include "platform/system/wintypes.h"

namespace qb::sys {

// Seconds between 1601-01-01 and 1970-01-01.
constexpr uint64_t kUnixEpochAsFileTimeSeconds = 11644473600ull;
constexpr uint64_t kTicksPerSecond = 10'000'000ull;

// Days since 1970-01-01 of a proleptic Gregorian date, and back.
int64_t DaysFromCivil(int64_t year, unsigned month, unsigned day);
void CivilFromDays(int64_t days, int64_t* year, unsigned* month, unsigned* day);

FILETIME GetSystemTimeAsFileTime();
FILETIME UnixToFileTime(int64_t seconds, int64_t nanoseconds = 0);
// Seconds and nanoseconds since 1970 of a FILETIME (may be negative).
struct timespec FileTimeToTimespec(const FILETIME& ft);

// Broken-down UTC time of a FILETIME; false when out of range (year > 30827).
bool FileTimeToSystemTime(const FILETIME& ft, SYSTEMTIME* st);
// FILETIME of a broken-down UTC time; false for an invalid date.
bool SystemTimeToFileTime(const SYSTEMTIME& st, FILETIME* ft);

SYSTEMTIME GetSystemTime();
// Local time of the C library's zone (TZ).
SYSTEMTIME GetLocalTime();
// Local broken-down time of a UTC FILETIME, through the C library's zone.
bool FileTimeToLocalSystemTime(const FILETIME& ft, SYSTEMTIME* st);

uint64_t GetTickCount64();
// Monotonic counter in nanoseconds, and its frequency (1e9).
int64_t QueryPerformanceCounter();
int64_t QueryPerformanceFrequency();

}  // namespace qb::sys
