#include "platform/system/clock.h"

#include <chrono>

namespace qb::sys {
namespace {

bool IsLeap(unsigned y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

unsigned DaysInMonth(unsigned y, unsigned m) {
  static constexpr unsigned kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return m == 2 && IsLeap(y) ? 29 : kDays[m - 1];
}

}  // namespace

// Days from 1970-01-01 to the civil date (proleptic Gregorian), after
// Howard Hinnant's algorithm.
int64_t DaysFromCivil(int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

void CivilFromDays(int64_t z, int64_t* y, unsigned* m, unsigned* d) {
  z += 719468;
  const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const unsigned doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  *d = doy - (153 * mp + 2) / 5 + 1;
  *m = mp < 10 ? mp + 3 : mp - 9;
  *y = static_cast<int64_t>(yoe) + era * 400 + (*m <= 2);
}

FILETIME UnixToFileTime(int64_t seconds, int64_t nanoseconds) {
  const int64_t ticks = (seconds + static_cast<int64_t>(kUnixEpochAsFileTimeSeconds)) *
                            static_cast<int64_t>(kTicksPerSecond) +
                        nanoseconds / 100;
  return FILETIME::From(ticks < 0 ? 0 : static_cast<uint64_t>(ticks));
}

struct timespec FileTimeToTimespec(const FILETIME& ft) {
  const int64_t ticks = static_cast<int64_t>(ft.Value());
  const int64_t unixTicks = ticks - static_cast<int64_t>(kUnixEpochAsFileTimeSeconds * kTicksPerSecond);
  struct timespec ts{};
  int64_t sec = unixTicks / static_cast<int64_t>(kTicksPerSecond);
  int64_t rem = unixTicks % static_cast<int64_t>(kTicksPerSecond);
  if (rem < 0) {
    rem += kTicksPerSecond;
    --sec;
  }
  ts.tv_sec = static_cast<time_t>(sec);
  ts.tv_nsec = static_cast<long>(rem * 100);
  return ts;
}

FILETIME GetSystemTimeAsFileTime() {
  struct timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return UnixToFileTime(ts.tv_sec, ts.tv_nsec);
}

bool FileTimeToSystemTime(const FILETIME& ft, SYSTEMTIME* st) {
  const uint64_t v = ft.Value();
  if (v >= 0x8000000000000000ull) return false;
  const uint64_t totalMs = v / 10'000;
  const int64_t days = static_cast<int64_t>(totalMs / 86'400'000ull) - 134774;  // to 1970 epoch
  const uint64_t msOfDay = totalMs % 86'400'000ull;
  int64_t y;
  unsigned m, d;
  CivilFromDays(days, &y, &m, &d);
  if (y > 30827) return false;
  st->wYear = static_cast<uint16_t>(y);
  st->wMonth = static_cast<uint16_t>(m);
  st->wDay = static_cast<uint16_t>(d);
  st->wDayOfWeek = static_cast<uint16_t>(((days % 7) + 11) % 7);  // 1970-01-01 was a Thursday
  st->wHour = static_cast<uint16_t>(msOfDay / 3'600'000);
  st->wMinute = static_cast<uint16_t>(msOfDay / 60'000 % 60);
  st->wSecond = static_cast<uint16_t>(msOfDay / 1000 % 60);
  st->wMilliseconds = static_cast<uint16_t>(msOfDay % 1000);
  return true;
}

bool SystemTimeToFileTime(const SYSTEMTIME& st, FILETIME* ft) {
  if (st.wYear < 1601 || st.wYear > 30827 || st.wMonth < 1 || st.wMonth > 12 || st.wDay < 1 ||
      st.wDay > DaysInMonth(st.wYear, st.wMonth) || st.wHour > 23 || st.wMinute > 59 ||
      st.wSecond > 59 || st.wMilliseconds > 999)
    return false;
  const int64_t days = DaysFromCivil(st.wYear, st.wMonth, st.wDay) + 134774;
  const uint64_t ms = static_cast<uint64_t>(days) * 86'400'000ull + st.wHour * 3'600'000ull +
                      st.wMinute * 60'000ull + st.wSecond * 1000ull + st.wMilliseconds;
  *ft = FILETIME::From(ms * 10'000);
  return true;
}

SYSTEMTIME GetSystemTime() {
  SYSTEMTIME st;
  FileTimeToSystemTime(GetSystemTimeAsFileTime(), &st);
  return st;
}

bool FileTimeToLocalSystemTime(const FILETIME& ft, SYSTEMTIME* st) {
  const struct timespec ts = FileTimeToTimespec(ft);
  struct tm tmLocal{};
  time_t t = ts.tv_sec;
  if (!localtime_r(&t, &tmLocal)) return false;
  st->wYear = static_cast<uint16_t>(tmLocal.tm_year + 1900);
  st->wMonth = static_cast<uint16_t>(tmLocal.tm_mon + 1);
  st->wDay = static_cast<uint16_t>(tmLocal.tm_mday);
  st->wDayOfWeek = static_cast<uint16_t>(tmLocal.tm_wday);
  st->wHour = static_cast<uint16_t>(tmLocal.tm_hour);
  st->wMinute = static_cast<uint16_t>(tmLocal.tm_min);
  st->wSecond = static_cast<uint16_t>(tmLocal.tm_sec);
  st->wMilliseconds = static_cast<uint16_t>(ts.tv_nsec / 1'000'000);
  return true;
}

SYSTEMTIME GetLocalTime() {
  SYSTEMTIME st;
  FileTimeToLocalSystemTime(GetSystemTimeAsFileTime(), &st);
  return st;
}

uint64_t GetTickCount64() {
  struct timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1'000'000;
}

int64_t QueryPerformanceCounter() {
  struct timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

int64_t QueryPerformanceFrequency() { return 1'000'000'000; }

}  // namespace qb::sys
