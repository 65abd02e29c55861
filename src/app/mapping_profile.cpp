#include "app/mapping_profile.h"

#include "diag/trace.h"
#include "settings/profiles.h"

namespace qb::app {
namespace {

constexpr size_t kAliasChars = 21;
constexpr size_t kFormatChars = 400;
constexpr size_t kListChars = 260;

// Points every field of the request at the profile record.
void Bind(MappingProfile* p, ProfileRequest* r, DWORD* dw) {
  r->sFriendlyName = p->friendlyName.c_str();
  r->sSerialNumber = p->serialNumber.c_str();
  r->sPnPID = p->pnpId.c_str();
  r->sAlias = &p->alias;
  r->nAliasCapacity = kAliasChars;
  for (int i = 0; i < 4; ++i) r->pDriveLetter[i] = &p->letters[i];
  r->sFormatString = &p->formatString;
  r->nFormatStringCapacity = kFormatChars;
  dw[0] = p->autoMap, dw[1] = p->ignore, dw[2] = p->multiCardSupport, dw[3] = p->policy, dw[4] = p->fileSystem;
  r->pdwAutoMap = &dw[0];
  r->pdwIgnore = &dw[1];
  r->pdwMultiCardSupport = &dw[2];
  r->pdwIfDriveLetterUnavailable = &dw[3];
  r->pdwFileSystem = &dw[4];
  r->sExcludeList = &p->excludeList;
  r->nExcludeListCapacity = kListChars;
  r->sIgnoredStoragesList = &p->ignoredStoragesList;
  r->nIgnoredStoragesListCapacity = kListChars;
}

void TakeBack(MappingProfile* p, const DWORD* dw) {
  p->autoMap = dw[0], p->ignore = dw[1], p->multiCardSupport = dw[2], p->policy = dw[3], p->fileSystem = dw[4];
}

}  // namespace

MappingProfile ReadMappingProfile(const std::string& friendlyName, const std::string& serial,
                                  const std::string& pnpId) {
  MappingProfile p;
  p.friendlyName = friendlyName;
  p.serialNumber = serial;
  p.pnpId = pnpId;
  ProfileRequest r;
  DWORD dw[5];
  Bind(&p, &r, dw);
  DWORD usedDefault = 0, reserved = 0;
  r.bFallBackToDefault = true;
  r.pbUsedDefault = &usedDefault;
  r.pbReserved = &reserved;
  bool read = ReadProfile(&r, false);
  TakeBack(&p, dw);
  p.existed = read && !usedDefault;
  if (!p.existed) {
    Trace("M61@ReadMappingProfile: ", "New profile for \"%s\" (%s)", friendlyName.c_str(), serial.c_str());
    ProfileRequest w;
    DWORD wdw[5];
    Bind(&p, &w, wdw);
    WriteProfile(&w, true);
  }
  return p;
}

void RereadMappingChoices(MappingProfile* profile) {
  MappingProfile fresh = ReadMappingProfile(profile->friendlyName, profile->serialNumber, profile->pnpId);
  profile->multiCardSupport = fresh.multiCardSupport;
  profile->fileSystem = fresh.fileSystem;
  for (int i = 0; i < 4; ++i) profile->letters[i] = fresh.letters[i];
}

void WriteMappingProfile(const MappingProfile& profile) {
  MappingProfile copy = profile;
  ProfileRequest w;
  DWORD dw[5];
  Bind(&copy, &w, dw);
  WriteProfile(&w, false);
}

}  // namespace qb::app
