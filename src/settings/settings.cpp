// The numeric settings readers and the Flags migration.
#include "settings/settings.h"

#include <cstdlib>
#include <mutex>

#include "common/strings.h"
#include "diag/trace.h"
#include "platform/registry/registry.h"
#include "settings/settings_values.h"

using qb::reg::Key;
using qb::settings::ReadUserDword;
using qb::settings::ReadUserString;

namespace {

DWORD Returned(const char* tag, const char* exit, DWORD value) {
  Trace(tag, "%sRC=0x%08X (%s)", exit, value, CodeToName(static_cast<int32_t>(value)));
  return value;
}

// An older name of Flags: taken over with the battery-check bit added.
void MigrateTraceFlags(const Key& readKey) {
  DWORD type = 0;
  if (readKey.QueryValue("TraceFlags", &type, nullptr) != ERROR_SUCCESS) return;
  DWORD flags = QB_FLAGS_DEFAULT;
  if (readKey.GetDword("TraceFlags", &flags) != ERROR_SUCCESS) flags = QB_FLAGS_DEFAULT;
  flags |= QB_FLAG_BATTERY_CHECK;
  Key writeKey;
  if (writeKey.Open(HKEY_CURRENT_USER, QB_SETTINGS_KEY, KEY_READ | KEY_WRITE) != ERROR_SUCCESS) return;
  writeKey.SetDword("Flags", flags);
  writeKey.DeleteValue("TraceFlags");
}

}  // namespace

DWORD Registry_Get_Flags() {
  const char* tag = "Q1@Registry_Get_Flags: ";
  Trace(tag, "ENTER ");
  Key key;
  if (key.Open(HKEY_CURRENT_USER, QB_SETTINGS_KEY, KEY_READ) != ERROR_SUCCESS)
    return Returned(tag, "RETURN[1]: ", QB_FLAGS_DEFAULT);
  MigrateTraceFlags(key);
  DWORD flags = QB_FLAGS_DEFAULT;
  if (key.GetDword("Flags", &flags) != ERROR_SUCCESS) flags = QB_FLAGS_DEFAULT;
  return Returned(tag, "RETURN[2]: ", flags);
}

DWORD Registry_Get_AutomapDelay() {
  const char* tag = "Q2@Registry_Get_AutomapDelay: ";
  Trace(tag, "ENTER ");
  DWORD seconds = 0;
  if (!ReadUserDword("AutomapDelay", &seconds) || seconds > 30) seconds = 0;
  return Returned(tag, "RETURN: ", seconds);
}

DWORD Registry_Get_CacheSize() {
  const char* tag = "Q3@Registry_Get_CacheSize: ";
  Trace(tag, "ENTER ");
  DWORD mib = 100;
  if (!ReadUserDword("CacheSize", &mib) || mib < 100) mib = 100;
  return Returned(tag, "RETURN: ", mib);
}

namespace qb::settings {
DWORD ReadExpiryDirlistInterval() {
  DWORD seconds = 5;
  if (!ReadUserDword("ExpiryDirlistInterval", &seconds)) seconds = 5;
  if (seconds < 1) seconds = 1;
  if (seconds > 86400) seconds = 86400;
  return seconds;
}
}  // namespace qb::settings

DWORD Registry_Get_ExpiryDirlistInterval() {
  const char* tag = "Q4@Registry_Get_ExpiryDirlistInterval: ";
  Trace(tag, "ENTER ");
  static std::once_flag once;
  static DWORD kept = 5;
  std::call_once(once, [] { kept = qb::settings::ReadExpiryDirlistInterval(); });
  return Returned(tag, "RETURN: ", kept);
}

DWORD Registry_Get_GetFileDelayMs() {
  const char* tag = "Q5@Registry_Get_GetFileDelayMs: ";
  Trace(tag, "ENTER ");
  DWORD ms = 0;
  if (!ReadUserDword("GetFileDelayMs", &ms) || ms > 1000) ms = 0;
  return Returned(tag, "RETURN: ", ms);
}

int Registry_Get_FileTimeOffsetMinutes() {
  const char* tag = "Q6@Registry_Get_FileTimeOffsetMinutes: ";
  Trace(tag, "ENTER ");
  std::string text;
  long minutes = 0;
  if (ReadUserString("FileTimeOffsetMinutes", &text)) {
    // Read like the C library's decimal conversion: leading blanks, a sign,
    // digits, and anything after them ignored; at most 18 characters.
    const std::string cut(qb::CutToUtf16(text, 18));
    minutes = std::strtol(cut.c_str(), nullptr, 10);
    if (minutes < -1440 || minutes > 1440) minutes = 0;
  }
  Returned(tag, "RETURN: ", static_cast<DWORD>(minutes));
  return static_cast<int>(minutes);
}
