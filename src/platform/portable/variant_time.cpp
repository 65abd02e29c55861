// OLE automation dates (VT_DATE) and PnP ids.
#include <cmath>

#include "platform/portable/portable.h"
#include "platform/system/clock.h"

namespace qb::portable {
namespace {

// Days from 1899-12-30 to 1601-01-01 (negative: 1601 lies before).
constexpr double kOleEpochDaysFrom1601 = 109205.0;
constexpr double kSecondsPerDay = 86400.0;

}  // namespace

bool SystemTimeToVariantTime(const SYSTEMTIME& st, double* date) {
  if (st.wYear < 100 || st.wYear > 9999) return false;
  SYSTEMTIME whole = st;
  whole.wMilliseconds = 0;
  FILETIME ft;
  if (!qb::sys::SystemTimeToFileTime(whole, &ft)) return false;
  // Seconds since 1601, then days relative to 1899-12-30. Dates before the
  // epoch keep the time of day as a positive fraction (OLE convention).
  double seconds = static_cast<double>(ft.Value() / qb::sys::kTicksPerSecond);
  double days = seconds / kSecondsPerDay - kOleEpochDaysFrom1601;
  if (days < 0) {
    double whole_days = std::floor(days);
    days = whole_days - (days - whole_days);
  }
  if (date) *date = days;
  return true;
}

bool VariantTimeToSystemTime(double date, SYSTEMTIME* st) {
  if (!std::isfinite(date) || date < -657434.0 || date > 2958465.9999) return false;
  double days = date;
  if (date < 0) {
    // Negative dates: the integer part counts days back, the fraction is
    // still the time of day going forward.
    double whole_days = std::ceil(date);
    days = whole_days + (whole_days - date);
  }
  double seconds = std::round((days + kOleEpochDaysFrom1601) * kSecondsPerDay);
  if (seconds < 0) return false;
  FILETIME ft = FILETIME::From(static_cast<uint64_t>(seconds) * qb::sys::kTicksPerSecond);
  SYSTEMTIME out;
  if (!qb::sys::FileTimeToSystemTime(ft, &out)) return false;
  if (st) *st = out;
  return true;
}

bool FileTimeToVariantTime(const FILETIME& ft, double* date) {
  SYSTEMTIME st;
  return qb::sys::FileTimeToSystemTime(ft, &st) && SystemTimeToVariantTime(st, date);
}

bool VariantTimeToFileTime(double date, FILETIME* ft) {
  SYSTEMTIME st;
  return VariantTimeToSystemTime(date, &st) && qb::sys::SystemTimeToFileTime(st, ft);
}

std::string MakePnpDeviceId(const std::string& bus, const std::string& product, const std::string& serial) {
  std::string guid = qb::sys::FormatGuid(GUID_DEVINTERFACE_WPD);
  for (char& c : guid)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return "\\\\?\\" + bus + "#" + product + "#" + serial + "#" + guid;
}

bool SplitPnpDeviceId(const std::string& pnpId, std::string* bus, std::string* product, std::string* serial) {
  const std::string prefix = "\\\\?\\";
  if (pnpId.compare(0, prefix.size(), prefix) != 0) return false;
  std::string rest = pnpId.substr(prefix.size());
  size_t a = rest.find('#');
  if (a == std::string::npos) return false;
  size_t b = rest.find('#', a + 1);
  if (b == std::string::npos) return false;
  size_t c = rest.rfind('#');
  if (c == b || c == std::string::npos) return false;
  if (bus) *bus = rest.substr(0, a);
  if (product) *product = rest.substr(a + 1, b - a - 1);
  if (serial) *serial = rest.substr(b + 1, c - b - 1);
  return true;
}

}  // namespace qb::portable
