// File-time options of the tree: use of the creation time, and the
// correction for devices whose clocks ignore daylight-saving time.
#include <cerrno>
#include <mutex>

#include "diag/trace.h"
#include "directory/directory.h"
#include "directory/trace_steps.h"
#include "platform/system/clock.h"
#include "platform/system/timezone.h"

namespace {

constexpr const char* kFixTag = "D30@CDirectory::FixDstFiletime: ";
constexpr int64_t kTicksPerMinute = 600'000'000LL;

// The process-wide zone record, filled by SetFlagDstFiletimeFix and read by
// FixDstFiletime.
std::mutex g_zoneMutex;
qb::sys::DYNAMIC_TIME_ZONE_INFORMATION g_zone;

qb::sys::DYNAMIC_TIME_ZONE_INFORMATION Zone() {
  std::lock_guard<std::mutex> lock(g_zoneMutex);
  return g_zone;
}

// The moment of a transition rule in the given year, as a FILETIME without
// zone conversion.
bool TransitionTime(int year, const SYSTEMTIME& rule, FILETIME* out) {
  const int day = qb::sys::TransitionDay(year, rule);
  if (day == 0) return false;
  SYSTEMTIME st{};
  st.wYear = static_cast<uint16_t>(year);
  st.wMonth = rule.wMonth;
  st.wDay = static_cast<uint16_t>(day);
  st.wHour = rule.wHour;
  return qb::sys::SystemTimeToFileTime(st, out);
}

void TraceTime(const char* label, const FILETIME& t) {
  SYSTEMTIME st;
  if (qb::sys::FileTimeToSystemTime(t, &st))
    Trace(kFixTag, "%s = %04d-%02d-%02d %02d:%02d:%02d", label, st.wYear, st.wMonth, st.wDay,
          st.wHour, st.wMinute, st.wSecond);
  else
    Trace(kFixTag, "%s = 0x%08X:0x%08X", label, t.dwHighDateTime, t.dwLowDateTime);
}

}  // namespace

void CDirectory::SetFlagUseCreateTime(int on) {
  if (on)
    m_dwFlags |= kFlagUseCreateTime;
  else
    m_dwFlags &= ~kFlagUseCreateTime;
}

void CDirectory::SetFlagDstFiletimeFix(int on, int32_t offsetMinutes) {
  static const char* kTag = "D29@CDirectory::SetFlagDstFiletimeFix: ";
  qb::directory::TraceEnter(kTag);
  m_dwFlags &= ~kFlagDstFiletimeFix;
  if (!on) return qb::directory::TraceLeave(kTag, 1);
  qb::sys::DYNAMIC_TIME_ZONE_INFORMATION zone;
  const uint32_t id = qb::sys::GetDynamicTimeZoneInformation(&zone);
  if (id == qb::sys::TIME_ZONE_ID_INVALID) {
    Trace(kTag, "GetDynamicTimeZoneInformation=TIME_ZONE_ID_INVALID:%d", errno);
    return qb::directory::TraceLeave(kTag, 2);
  }
  {
    std::lock_guard<std::mutex> lock(g_zoneMutex);
    g_zone = zone;
  }
  Trace(kTag, "GetDynamicTimeZoneInformation=%d:%d:%d:%d", static_cast<int>(id),
        zone.DynamicDaylightTimeDisabled ? 1 : 0, zone.DaylightBias, offsetMinutes);
  if (zone.DynamicDaylightTimeDisabled) return qb::directory::TraceLeave(kTag, 3);
  Trace(kTag, "GetDynamicTimeZoneInformation(SD) = %02d:%02d:%02d", zone.StandardDate.wMonth,
        zone.StandardDate.wDayOfWeek, zone.StandardDate.wDay);
  Trace(kTag, "GetDynamicTimeZoneInformation(DD) = %02d:%02d:%02d", zone.DaylightDate.wMonth,
        zone.DaylightDate.wDayOfWeek, zone.DaylightDate.wDay);
  m_dwFlags |= kFlagDstFiletimeFix;
  m_lDstOffset = offsetMinutes;
  qb::directory::TraceLeave(kTag);
}

int CDirectory::FixDstFiletime(FILETIME* time, const char* name) const {
  if (!time) return 0;
  SYSTEMTIME st;
  if (!qb::sys::FileTimeToSystemTime(*time, &st)) return 0;
  const qb::sys::DYNAMIC_TIME_ZONE_INFORMATION zone = Zone();
  FILETIME start, end;
  if (!TransitionTime(st.wYear, zone.DaylightDate, &start) ||
      !TransitionTime(st.wYear, zone.StandardDate, &end))
    return 0;
  // Within one calendar year: a daylight period across the new year (start
  // after end) is never corrected.
  if (time->Value() < start.Value() || time->Value() > end.Value()) return 0;
  Trace(kFixTag, "ENTER: %s", name ? name : "");
  TraceTime("Before", *time);
  const int64_t shifted = static_cast<int64_t>(time->Value()) +
                          static_cast<int64_t>(m_lDstOffset + zone.DaylightBias) * kTicksPerMinute;
  *time = FILETIME::From(shifted < 0 ? 0 : static_cast<uint64_t>(shifted));
  TraceTime("After", *time);
  qb::directory::TraceReturn(kFixTag, 1);
  return 1;
}
