// Reading and writing one device profile.
#include "settings/profiles.h"

#include "common/strings.h"
#include "diag/trace.h"
#include "platform/registry/registry.h"
#include "settings/profile_values.h"
#include "settings/settings_values.h"

using qb::reg::Key;
using qb::settings::DriveLetterValueName;
using qb::settings::ReadProfileText;
using qb::settings::StoreText;
using qb::settings::TrimBlanks;

namespace {

bool Returned(const char* tag, const char* exit, bool result) {
  Trace(tag, "%sRC=0x%08X (%s)", exit, result ? 1u : 0u, CodeToName(result ? 1 : 0));
  return result;
}

bool Present(const char* text) { return text && *text; }

char ToLowerAZ(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// A letter value counts only when it is exactly one (ASCII) character.
char ReadLetter(const Key& key, int card, bool placeholders) {
  std::string text;
  if (key.GetString(DriveLetterValueName(card), &text) == ERROR_SUCCESS && qb::Utf16Length(text) == 1 &&
      static_cast<unsigned char>(text[0]) < 0x80)
    return ToLowerAZ(text[0]);
  return placeholders ? '?' : 0;
}

void ReadDword(const Key& key, const char* name, DWORD fallback, DWORD* out) {
  if (out && key.GetDword(name, out) != ERROR_SUCCESS) *out = fallback;
}

void ReadTrimmed(const Key& key, const char* name, std::string* out, size_t capacity) {
  if (out) StoreText(out, capacity, TrimBlanks(ReadProfileText(key, name)));
}

void ReadValues(const Key& key, ProfileRequest* r, bool placeholders) {
  if (r->sFormatString) {
    std::string format = ReadProfileText(key, "FormatString");
    StoreText(r->sFormatString, r->nFormatStringCapacity, format.empty() ? QB_DEFAULT_FORMAT_STRING : format);
  }
  for (int card = 1; card <= 4; ++card)
    if (r->pDriveLetter[card - 1]) *r->pDriveLetter[card - 1] = ReadLetter(key, card, placeholders);
  ReadDword(key, "IfDriveLetterUnavailable", 0, r->pdwIfDriveLetterUnavailable);
  ReadDword(key, "FileSystem", QB_DEFAULT_FILE_SYSTEM, r->pdwFileSystem);
  ReadDword(key, "AutoMap", 0, r->pdwAutoMap);
  ReadDword(key, "Ignore", 0, r->pdwIgnore);
  ReadDword(key, "MultiCardSupport", 0, r->pdwMultiCardSupport);
  ReadTrimmed(key, "Alias", r->sAlias, r->nAliasCapacity);
  ReadTrimmed(key, "ExcludeList", r->sExcludeList, r->nExcludeListCapacity);
  ReadTrimmed(key, "IgnoredStoragesList", r->sIgnoredStoragesList, r->nIgnoredStoragesListCapacity);
}

void AddDword(std::vector<Key::NewValue>* values, const char* name, const DWORD* value) {
  if (value) values->push_back(Key::DwordValue(name, *value));
}

}  // namespace

std::string ProfileKeyPath(const char* friendlyName, const char* serialNumber) {
  std::string path;
  _Stprintf(&path, qb::kMaxPath, "%s\\%s", QB_PROFILES_KEY, friendlyName ? friendlyName : "");
  if (Present(serialNumber)) {
    _TcsCat(&path, qb::kMaxPath, "\\");
    _TcsCat(&path, qb::kMaxPath, serialNumber);
  }
  return path;
}

bool ReadProfile(ProfileRequest* request, bool placeholders) {
  const char* tag = "Q20@ReadProfile: ";
  Trace(tag, "ENTER ");
  if (!request || !Present(request->sFriendlyName)) return Returned(tag, "RETURN[1]: ", false);
  if (request->pbUsedDefault) *request->pbUsedDefault = 0;
  if (request->pbReserved) *request->pbReserved = 0;
  Key key;
  const std::string path = ProfileKeyPath(request->sFriendlyName, request->sSerialNumber);
  if (key.Open(HKEY_CURRENT_USER, path, KEY_READ) != ERROR_SUCCESS) {
    if (!request->bFallBackToDefault || key.Open(HKEY_CURRENT_USER, QB_PROFILES_KEY, KEY_READ) != ERROR_SUCCESS) {
      Trace(tag, "No profile for \"%s\"", path.c_str());
      return Returned(tag, "RETURN[2]: ", false);
    }
    if (request->pbUsedDefault) *request->pbUsedDefault = 1;
  }
  ReadValues(key, request, placeholders);
  return Returned(tag, "RETURN[3]: ", true);
}

bool WriteProfile(const ProfileRequest* request, bool forceLetters) {
  const char* tag = "Q21@WriteProfile: ";
  Trace(tag, "ENTER ");
  if (!request || !Present(request->sFriendlyName)) return Returned(tag, "RETURN[1]: ", false);
  Key key;
  bool created = false;
  const std::string path = ProfileKeyPath(request->sFriendlyName, request->sSerialNumber);
  if (key.Create(HKEY_CURRENT_USER, path, KEY_READ | KEY_WRITE, &created) != ERROR_SUCCESS)
    return Returned(tag, "RETURN[2]: ", false);
  // One write of the settings file for the whole profile (each value on
  // its own rewrote and synced the file).
  std::vector<Key::NewValue> values;
  if (request->sFormatString && !request->sFormatString->empty())
    values.push_back(Key::StringValue("FormatString", *request->sFormatString));
  if (created || forceLetters) {
    for (int card = 1; card <= 4; ++card) {
      const char* letter = request->pDriveLetter[card - 1];
      if (letter && *letter)
        values.push_back(Key::StringValue(DriveLetterValueName(card), std::string(1, qb::ToUpperAZ(*letter))));
    }
  }
  AddDword(&values, "IfDriveLetterUnavailable", request->pdwIfDriveLetterUnavailable);
  AddDword(&values, "FileSystem", request->pdwFileSystem);
  AddDword(&values, "AutoMap", request->pdwAutoMap);
  AddDword(&values, "Ignore", request->pdwIgnore);
  AddDword(&values, "MultiCardSupport", request->pdwMultiCardSupport);
  if (request->sAlias && !request->sAlias->empty()) values.push_back(Key::StringValue("Alias", *request->sAlias));
  if (key.SetValues(std::move(values)) != ERROR_SUCCESS) return Returned(tag, "RETURN[4]: ", false);
  return Returned(tag, "RETURN[3]: ", true);
}
