// The copy of the machine defaults into the user's key, and the settings dump.
#include <cstdio>
#include <vector>

#include "common/strings.h"
#include "diag/trace.h"
#include "platform/registry/registry.h"
#include "settings/settings.h"

using qb::reg::Key;

bool Registry_CopyMachineDefaults() {
  const char* tag = "Q13@Registry_CopyMachineDefaults: ";
  Trace(tag, "ENTER ");
  Key machine;
  uint64_t machineStamp = 0;
  if (machine.Open(HKEY_LOCAL_MACHINE, QB_SETTINGS_KEY, KEY_READ) != ERROR_SUCCESS ||
      machine.GetQword("Timestamp", &machineStamp) != ERROR_SUCCESS) {
    Trace(tag, "RETURN[1]: RC=0x%08X (%s)", 0u, CodeToName(0));
    return false;
  }
  Key user;
  uint64_t userStamp = 0;
  if (user.Create(HKEY_CURRENT_USER, QB_SETTINGS_KEY, KEY_READ | KEY_WRITE) != ERROR_SUCCESS ||
      (user.GetQword("Timestamp", &userStamp) == ERROR_SUCCESS && userStamp >= machineStamp)) {
    Trace(tag, "RETURN[2]: RC=0x%08X (%s)", 0u, CodeToName(0));
    return false;
  }
  user.SetQword("Timestamp", machineStamp);
  for (const char* name : {"Flags", "AutomapDelay", "CacheSize"}) {
    DWORD value = 0;
    if (machine.GetDword(name, &value) == ERROR_SUCCESS)
      user.SetDword(name, value);
    else
      user.DeleteValue(name);
  }
  Trace(tag, "RETURN[3]: RC=0x%08X (%s)", 1u, CodeToName(1));
  return true;
}

namespace {

constexpr size_t kMaxDumpTextBytes = 300;

uint64_t LittleEndian(const std::vector<uint8_t>& data) {
  uint64_t v = 0;
  for (size_t i = 0; i < data.size() && i < 8; ++i) v |= static_cast<uint64_t>(data[i]) << (8 * i);
  return v;
}

// Text cut to at most `bytes` bytes without splitting a character.
std::string CutBytes(const std::vector<uint8_t>& data, size_t bytes) {
  size_t n = std::min(bytes, data.size());
  if (n < data.size())
    while (n > 0 && (data[n] & 0xC0) == 0x80) --n;
  return std::string(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(n));
}

std::string DumpLine(const std::string& name, DWORD type, const std::vector<uint8_t>& data) {
  std::string line = (name.empty() ? std::string("@") : name) + "=";
  if (type == REG_SZ)
    line += CutBytes(data, kMaxDumpTextBytes);
  else if (type == REG_DWORD && data.size() == 4)
    line += qb::Format("0x%08X", static_cast<unsigned>(LittleEndian(data)));
  else if (type == REG_QWORD && data.size() == 8)
    line += qb::Format("0x%016llX", static_cast<unsigned long long>(LittleEndian(data)));
  else
    line += qb::Format("<type=%d>", static_cast<int>(type));
  return line;
}

}  // namespace

std::string Registry_SettingsDumpText(const char* eol) {
  Key key;
  if (key.Open(HKEY_CURRENT_USER, QB_SETTINGS_KEY, KEY_READ) != ERROR_SUCCESS) return {};
  std::string text;
  std::string name;
  DWORD type = 0;
  std::vector<uint8_t> data;
  for (DWORD i = 0; key.EnumValue(i, &name, &type, &data) == ERROR_SUCCESS; ++i)
    text += DumpLine(name, type, data) + (eol ? eol : "");
  return text;
}

void Registry_DumpSettings(FILE* file) {
  const char* tag = "Q14@Registry_DumpSettings: ";
  Trace(tag, "ENTER ");
  if (file) {
    const std::string text = Registry_SettingsDumpText("\r\n");
    fwrite(text.data(), 1, text.size(), file);
  }
  Trace(tag, "LEAVE ");
}
