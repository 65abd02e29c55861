// Listing every profile, and taking over the machine's default profile.
#include <memory>
#include <vector>

#include "common/strings.h"
#include "diag/trace.h"
#include "platform/registry/registry.h"
#include "settings/profile_values.h"
#include "settings/profiles.h"
#include "settings/settings_values.h"

using qb::reg::Key;
using qb::settings::DriveLetterValueName;
using qb::settings::ReadProfileText;
using qb::settings::TrimBlanks;

namespace {

bool Returned(const char* tag, const char* exit, bool result) {
  Trace(tag, "%sRC=0x%08X (%s)", exit, result ? 1u : 0u, CodeToName(result ? 1 : 0));
  return result;
}

// Which drive letter value a name is (1 to 4), or 0.
int LetterCard(const std::string& name) {
  for (int card = 1; card <= 4; ++card)
    if (qb::EqualsNoCaseAZ(name, DriveLetterValueName(card))) return card;
  return 0;
}

DWORD AsDword(const std::vector<uint8_t>& data) {
  return data[0] | (data[1] << 8) | (data[2] << 16) | (static_cast<DWORD>(data[3]) << 24);
}

void TakeDword(const std::string& name, DWORD value, ProfileSummary* s) {
  if (qb::EqualsNoCaseAZ(name, "IfDriveLetterUnavailable")) s->dwIfDriveLetterUnavailable = value;
  if (qb::EqualsNoCaseAZ(name, "FileSystem")) s->dwFileSystem = value;
  if (qb::EqualsNoCaseAZ(name, "AutoMap")) s->dwAutoMap = value ? 1 : 0;
  if (qb::EqualsNoCaseAZ(name, "Ignore")) s->dwIgnore = value ? 1 : 0;
  if (qb::EqualsNoCaseAZ(name, "MultiCardSupport")) s->dwMultiCardSupport = value ? 1 : 0;
}

// The first character of a letter value as stored. A character beyond
// ASCII is no drive letter and does not fit a char: it shows as "?" (its
// first byte alone would be half a character).
char FirstCharacter(const std::string& text) {
  if (text.empty()) return 0;
  return static_cast<unsigned char>(text[0]) < 0x80 ? text[0] : '?';
}

void TakeText(const Key& key, const std::string& name, ProfileSummary* s) {
  if (qb::EqualsNoCaseAZ(name, "FormatString")) {
    std::string format = ReadProfileText(key, "FormatString");
    if (!format.empty()) s->sFormatString = std::move(format);
  } else if (qb::EqualsNoCaseAZ(name, "Alias")) {
    s->sAlias = std::string(qb::CutToUtf16(TrimBlanks(ReadProfileText(key, "Alias")), QB_ALIAS_SUMMARY_CHARS));
  } else if (const int card = LetterCard(name)) {
    s->cDriveLetter[card - 1] = FirstCharacter(ReadProfileText(key, DriveLetterValueName(card)));
  }
}

// Fills a summary by walking the key's values.
void FillSummary(const Key& key, ProfileSummary* s) {
  std::string name;
  DWORD type = 0;
  std::vector<uint8_t> data;
  for (DWORD i = 0; key.EnumValue(i, &name, &type, &data) == ERROR_SUCCESS; ++i) {
    if (type == REG_DWORD && data.size() == 4) TakeDword(name, AsDword(data), s);
    if (type == REG_SZ) TakeText(key, name, s);
  }
}

void AddSummary(const Key& key, const std::string& friendlyName, const std::string& serial,
                PtrList<ProfileSummary>* list) {
  auto summary = std::make_unique<ProfileSummary>();
  summary->sFriendlyName = friendlyName;
  summary->sSerialNumber = serial;
  FillSummary(key, summary.get());
  list->Add(std::move(summary));
}

// A friendly-name key with subkeys holds only per-serial profiles.
void AddDevice(const Key& profiles, const std::string& friendlyName, PtrList<ProfileSummary>* list) {
  Key device;
  if (device.Open(profiles, friendlyName, KEY_READ) != ERROR_SUCCESS) return;
  DWORD subKeys = 0;
  device.QueryInfo(&subKeys, nullptr);
  if (subKeys == 0) {
    AddSummary(device, friendlyName, "", list);
    return;
  }
  std::string serial;
  for (DWORD i = 0; device.EnumKey(i, &serial) == ERROR_SUCCESS; ++i) {
    Key one;
    if (one.Open(device, serial, KEY_READ) == ERROR_SUCCESS) AddSummary(one, friendlyName, serial, list);
  }
}

}  // namespace

bool EnumerateProfiles(PtrList<ProfileSummary>* list) {
  const char* tag = "Q22@EnumerateProfiles: ";
  Trace(tag, "ENTER ");
  Key profiles;
  if (!list || profiles.Open(HKEY_CURRENT_USER, QB_PROFILES_KEY, KEY_READ) != ERROR_SUCCESS)
    return Returned(tag, "RETURN[1]: ", false);
  auto defaults = std::make_unique<ProfileSummary>();
  FillSummary(profiles, defaults.get());
  defaults->bDefault = true;
  defaults->sAlias.clear();
  if (defaults->sFormatString.empty()) defaults->sFormatString = QB_DEFAULT_FORMAT_STRING;
  list->Add(std::move(defaults));
  std::string friendlyName;
  for (DWORD i = 0; profiles.EnumKey(i, &friendlyName) == ERROR_SUCCESS; ++i) AddDevice(profiles, friendlyName, list);
  return Returned(tag, "RETURN[2]: ", true);
}

namespace {

void CopyOrDelete(const Key& machine, Key& user, const char* name) {
  DWORD value = 0;
  if (machine.GetDword(name, &value) == ERROR_SUCCESS)
    user.SetDword(name, value);
  else
    user.DeleteValue(name);
}

void CopyLetter(const Key& machine, Key& user, int card) {
  const char* name = DriveLetterValueName(card);
  std::string letter;
  if (machine.GetString(name, &letter) != ERROR_SUCCESS) {
    user.DeleteValue(name);
    return;
  }
  user.SetString(name, qb::Utf16Length(letter) == 1 ? qb::ToUpperAZ(letter) : std::string("?"));
}

void CopyFormat(const Key& machine, Key& user) {
  std::string format;
  if (machine.GetString("FormatString", &format) == ERROR_SUCCESS && !format.empty())
    user.SetString("FormatString", format);
  else
    user.DeleteValue("FormatString");
}

// The user's Profiles key, emptied of every device profile and value.
bool RecreateUserProfiles(Key* user) {
  Key settings;
  if (settings.Open(HKEY_CURRENT_USER, "SOFTWARE\\Quillbox", KEY_ALL_ACCESS) != ERROR_SUCCESS) return false;
  settings.DeleteTree("Profiles");
  return user->Create(HKEY_CURRENT_USER, QB_PROFILES_KEY, KEY_ALL_ACCESS) == ERROR_SUCCESS;
}

}  // namespace

bool CopyMachineProfileDefaults() {
  const char* tag = "Q23@CopyMachineProfileDefaults: ";
  Trace(tag, "ENTER ");
  Key machine;
  uint64_t machineStamp = 0;
  if (machine.Open(HKEY_LOCAL_MACHINE, QB_PROFILES_KEY, KEY_READ) != ERROR_SUCCESS ||
      machine.GetQword("Timestamp", &machineStamp) != ERROR_SUCCESS)
    return Returned(tag, "RETURN[1]: ", false);
  Key user;
  uint64_t userStamp = 0;
  if (user.Create(HKEY_CURRENT_USER, QB_PROFILES_KEY, KEY_ALL_ACCESS) != ERROR_SUCCESS ||
      (user.GetQword("Timestamp", &userStamp) == ERROR_SUCCESS && userStamp >= machineStamp))
    return Returned(tag, "RETURN[2]: ", false);
  DWORD deleteAll = 0;
  if (machine.GetDword("DeleteAllCustomProfiles", &deleteAll) == ERROR_SUCCESS && deleteAll != 0 &&
      !RecreateUserProfiles(&user))
    return Returned(tag, "RETURN[3]: ", false);
  user.SetQword("Timestamp", machineStamp);
  CopyFormat(machine, user);
  for (int card = 1; card <= 4; ++card) CopyLetter(machine, user, card);
  for (const char* name : {"IfDriveLetterUnavailable", "FileSystem", "AutoMap", "Ignore"})
    CopyOrDelete(machine, user, name);
  return Returned(tag, "RETURN[4]: ", true);
}
