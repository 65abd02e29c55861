#pragma once
// Helpers of the tree's tests: a time zone set for one test, and times.
#include <cstdlib>
#include <ctime>
#include <string>

#include "platform/system/clock.h"
#include "platform/system/wintypes.h"

namespace dirtest {

// Sets TZ for the life of the object and restores the previous value.
class ScopedTimeZone {
 public:
  explicit ScopedTimeZone(const char* tz) {
    const char* old = getenv("TZ");
    had_ = old != nullptr;
    if (had_) previous_ = old;
    setenv("TZ", tz, 1);
    tzset();
  }
  ~ScopedTimeZone() {
    if (had_)
      setenv("TZ", previous_.c_str(), 1);
    else
      unsetenv("TZ");
    tzset();
  }
  ScopedTimeZone(const ScopedTimeZone&) = delete;
  ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

 private:
  bool had_ = false;
  std::string previous_;
};

inline FILETIME At(int y, int mo, int d, int h = 0, int mi = 0, int s = 0) {
  SYSTEMTIME st{};
  st.wYear = static_cast<uint16_t>(y);
  st.wMonth = static_cast<uint16_t>(mo);
  st.wDay = static_cast<uint16_t>(d);
  st.wHour = static_cast<uint16_t>(h);
  st.wMinute = static_cast<uint16_t>(mi);
  st.wSecond = static_cast<uint16_t>(s);
  FILETIME ft;
  qb::sys::SystemTimeToFileTime(st, &ft);
  return ft;
}

inline SYSTEMTIME Parts(const FILETIME& ft) {
  SYSTEMTIME st;
  qb::sys::FileTimeToSystemTime(ft, &st);
  return st;
}

}  // namespace dirtest
