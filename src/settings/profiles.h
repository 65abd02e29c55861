#pragma once
// Device profiles: the mapping choices of one device, under
// HKEY_CURRENT_USER\SOFTWARE\Quillbox\Profiles\<friendly name>[\<serial>].
// The values of the Profiles key itself are the default profile. The
// machine's Profiles key (HKEY_LOCAL_MACHINE) carries a default profile that
// CopyMachineProfileDefaults takes over when its Timestamp is newer.
// Profiles are read and written without a lock of their own; each value is
// read and written atomically by the registry.
#include <cstddef>
#include <string>

#include "common/ptr_list.h"
#include "platform/system/codes.h"

constexpr const char* QB_PROFILES_KEY = "SOFTWARE\\Quillbox\\Profiles";
constexpr const char* QB_DEFAULT_FORMAT_STRING = "<P><O><Fo>";
constexpr DWORD QB_DEFAULT_FILE_SYSTEM = 0x00020000;
constexpr size_t QB_ALIAS_SUMMARY_CHARS = 20;

// What a caller hands to ReadProfile and WriteProfile. Every field but the
// friendly name may be absent (null); an absent field is neither read nor
// written. Buffers come with their capacity in UTF-16 units.
struct ProfileRequest {
  const char* sFriendlyName = nullptr;  // first part of the key; required
  const char* sSerialNumber = nullptr;  // second part of the key; may be empty
  const char* sPnPID = nullptr;         // carried along, not part of the key

  std::string* sAlias = nullptr;
  size_t nAliasCapacity = 0;
  // Preferred letters of storage cards 1 to 4 (DriveLetter, DriveLetter2..4):
  // a letter, a placeholder '1' '2' '3' '4' '?', or 0 for none.
  char* pDriveLetter[4] = {nullptr, nullptr, nullptr, nullptr};
  std::string* sFormatString = nullptr;
  size_t nFormatStringCapacity = 0;

  DWORD* pdwAutoMap = nullptr;
  DWORD* pdwIgnore = nullptr;
  DWORD* pdwMultiCardSupport = nullptr;
  DWORD* pdwIfDriveLetterUnavailable = nullptr;  // 0 ask, 1 first free, 2 last free
  DWORD* pdwFileSystem = nullptr;                // the mapping's dwStructureFlags

  bool bFallBackToDefault = false;  // a missing device key reads the default profile
  DWORD* pbUsedDefault = nullptr;   // set to 1 when the default profile was read instead
  DWORD* pbReserved = nullptr;      // always set to 0 by the reader

  std::string* sExcludeList = nullptr;
  size_t nExcludeListCapacity = 0;
  std::string* sIgnoredStoragesList = nullptr;
  size_t nIgnoredStoragesListCapacity = 0;
};

// One profile as the enumeration lists it.
struct ProfileSummary {
  bool bDefault = false;      // the default profile (empty name)
  std::string sFriendlyName;
  std::string sAlias;         // at most 20 characters
  std::string sSerialNumber;
  char cDriveLetter[4] = {0, 0, 0, 0};  // as stored (first character), 0 when missing
  std::string sFormatString;
  DWORD dwAutoMap = 0;             // 0 or 1
  DWORD dwIgnore = 0;              // 0 or 1
  DWORD dwMultiCardSupport = 0;    // 0 or 1
  DWORD dwIfDriveLetterUnavailable = 0;
  DWORD dwFileSystem = QB_DEFAULT_FILE_SYSTEM;
};

// The key of a device below HKEY_CURRENT_USER: Profiles\<name>[\<serial>],
// at most 259 characters.
std::string ProfileKeyPath(const char* friendlyName, const char* serialNumber);

// True when a key was read. With `placeholders` a missing or malformed drive
// letter reads as '?', else as 0.
bool ReadProfile(ProfileRequest* request, bool placeholders);
// True when the device key was created or opened. Letters are written only
// to a new key or with `forceLetters`.
bool WriteProfile(const ProfileRequest* request, bool forceLetters);
// Appends the default profile, then every device profile in registry order;
// true when any profile was found.
bool EnumerateProfiles(PtrList<ProfileSummary>* list);
// True when the user's default profile was replaced by the machine's.
bool CopyMachineProfileDefaults();
