// The storages of the device, the device check and the listing into the
// drive's tree, then the questions and the sort before the mount.
#include <chrono>
#include <thread>

#include "app/mapping_device.h"
#include "app/mapping_messages.h"
#include "app/mapping_stages.h"
#include "app/mapping_state.h"
#include "app/neighbours.h"
#include "common/strings.h"
#include "diag/trace.h"
#include "drive/drive.h"
#include "i18n/i18n.h"
#include "settings/settings.h"
#include "ui/desktop.h"

namespace qb::app {
namespace {

constexpr const char* kTag = "M68@ListDevice: ";
constexpr HRESULT kWiaErrorBusy = static_cast<HRESULT>(0x80210006u);
constexpr HRESULT kWiaErrorOffline = static_cast<HRESULT>(0x80210005u);
constexpr HRESULT kNotFound = static_cast<HRESULT>(0x80070490u);
constexpr int kBusyPassMs = 100;
// A device that stays busy this long (3 minutes) is given up.
constexpr int kBusyPassLimit = 1800;

// The naming pattern of the structure in the low 16 bits of the flags.
std::string PatternOf(uint32_t flags, const std::string& format) {
  const uint32_t structure = flags & 0xFFFF;
  if (structure == 0) {
    Trace(kTag, "Original FileSystem structure used");
    return "<P><O><Fo>";
  }
  if (structure != 1) {
    Trace(kTag, "Original FileSystem structure forced");
    return "<P><O><Fo>";
  }
  std::string rest = format;
  for (size_t p; (p = rest.find("<P>")) != std::string::npos;) rest.erase(p, 3);
  if (!rest.empty()) {
    Trace(kTag, "Virtual FileSystem structure used");
    return rest;
  }
  Trace(kTag, "Virtual FileSystem structure used, forced to original filename");
  return "<O><Fo>";
}

void SetStructure(const MappingState& m, CDirectory* tree) {
  std::string pattern = PatternOf(m.structureFlags, m.format);
  tree->SetNamingPattern(pattern.c_str());
  tree->SetFlagUseCreateTime((m.structureFlags & 0x00080000) ? 1 : 0);
  tree->SetFlagDstFiletimeFix((nb::Flags() & 0x200) ? 1 : 0, Registry_Get_FileTimeOffsetMinutes());
  Trace(kTag, "Format: '%s'", pattern.c_str());
}

int32_t ChooseStorage(MappingState* m) {
  const Invocation& inv = *m->inv;
  HRESULT hr = ReadStorages(m->profile.ignoredStoragesList, &m->storages);
  if (inv.chained) return 0;
  StorageChoice choice;
  int32_t rc = SelectStorage(m->storages, FAILED(hr), m->profile.multiCardSupport, inv.chained, inv.storageKind,
                             inv.storageSelector, &choice, &ProcessStorageLists());
  if (rc) return rc;
  m->onlyStorageName = choice.onlyStorageName;
  if (!choice.chosen) return 0;
  m->storageIndex = choice.index;
  m->storageName = choice.name;
  m->storageObjectId = choice.objectId;
  return 0;
}

bool BatteryAllows(const DeviceProps& props) {
  if (!(nb::Flags() & 0x2) || props.friendlyName.empty() || props.powerLevel < 0 || props.powerLevel >= 10)
    return true;
  return ui::AskBatteryLow(props.friendlyName, static_cast<int>(props.powerLevel));
}

void RecordDevice(MappingState* m, const DeviceProps& props) {
  if (!props.friendlyName.empty()) m->friendlyName = props.friendlyName;
  m->deviceType = props.deviceType;
  m->pnpIdOrEmpty = (nb::Flags() & 0x100) ? m->pnpId : std::string();
}

void ReportListingError(HRESULT hr) {
  Trace(kTag, "GetDirlist error: %s", CodeToName(hr));
  if (hr == kWiaErrorOffline)
    ShowWarning(I18N_Format(-41));
  else
    ShowWarning(I18N_Format(-40, {static_cast<uint32_t>(hr)}));
}

// One pass of the device check and the listing.
HRESULT CheckAndList(MappingState* m, DriveState* drive, bool* declined) {
  DeviceProps props;
  ReadDeviceProps(&props);
  if (!BatteryAllows(props)) {
    *declined = true;
    return E_ABORT;
  }
  RecordDevice(m, props);
  const bool original = (m->structureFlags & 0xFFFF) != 1;
  const uint32_t structure = (m->storageIndex == 0 && m->storages.size() > 1) ? 0 : 1;
  const uint32_t shallow = original && (m->structureFlags & 0x00020000) ? 1 : 0;
  return ListDevice(drive->pDirectory.get(), m->storageIndex, structure, shallow);
}

bool ListWhileBusy(MappingState* m, DriveState* drive) {
  bool declined = false;
  for (int pass = 0;; ++pass) {
    HRESULT hr = CheckAndList(m, drive, &declined);
    if (SUCCEEDED(hr)) return true;
    if (declined || hr == E_ABORT || hr == kNotFound) return false;
    if (hr != kWiaErrorBusy || pass >= kBusyPassLimit) {
      ReportListingError(hr);
      return false;
    }
    if (pass == 0) ShowProgress(I18N_Format(-27, {I18N_GUIDevice(false, false)}));
    std::this_thread::sleep_for(std::chrono::milliseconds(kBusyPassMs));
  }
}

}  // namespace

int32_t SelectAndList(MappingState* m, DriveState* drive, bool* listed) {
  *listed = false;
  CWriteLock lock(&drive->rDriveLock);
  ShowProgress(I18N_EnumeratingFilesOnTheDevice());
  SetStructure(*m, drive->pDirectory.get());
  if (int32_t rc = ChooseStorage(m); rc != 0) return rc;
  if (m->storageIndex)
    ShowProgress(Format(" [%s -> %c:]", m->storageName.c_str(), static_cast<char>(ToUpperAZ(m->letter))));
  drive->nStorageIndex = m->storageIndex;
  drive->sStorageName = m->storageName;
  drive->sStorageID = m->storageIndex ? m->storageObjectId : std::string();
  *listed = ListWhileBusy(m, drive);
  drive->sDeviceName = m->friendlyName;
  return 0;
}

bool PrepareMount(MappingState* m, DriveState* drive) {
  CDirectory* tree = drive->pDirectory.get();
  if (tree->GetRootDir()[0] == 0 && !ui::AskMapEmptyDevice()) return false;
  const bool isVirtual = (m->structureFlags & 0xFFFF) == 1;
  ShowProgress(isVirtual ? I18N_SortingFilesVirtual() : I18N_SortingFiles());
  {
    CWriteLock lock(&drive->rDriveLock);
    tree->Sort(m->storageIndex);
  }
  ShowProgress(I18N_Format(83, {I18N_GUIDrive(false, false)}));
  return true;
}

}  // namespace qb::app
