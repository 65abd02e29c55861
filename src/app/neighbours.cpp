#include "app/neighbours.h"

#include <unistd.h>

#include <filesystem>
#include <memory>
#include <mutex>

#include "common/ptr_list.h"
#include "common/strings.h"
#include "device/wpd_helper_local.h"
#include "diag/log_file.h"
#include "diag/trace.h"
#include "i18n/i18n.h"
#include "platform/dokan/dokan.h"
#include "platform/dokan/dokan_linux.h"
#include "platform/system/paths.h"
#include "settings/profiles.h"
#include "settings/settings.h"
#include "shell/drive_icon.h"

namespace qb::app::nb {
namespace {

// ---- settings ----

std::string CacheRootNow() {
  std::string root;
  const char* r = Registry_Get_CacheRoot(false, &root, qb::kMaxPath, true);
  return r ? root : std::string();
}

std::vector<diag::LogSetting> SettingsForHeader() {
  // The header lists the settings as the settings layer dumps them; each
  // "name=data" line is carried as one text setting with an empty name
  // replaced by the line itself.
  std::vector<diag::LogSetting> out;
  std::string text = Registry_SettingsDumpText("\n");
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    std::string line = text.substr(start, end == std::string::npos ? std::string::npos : end - start);
    size_t eq = line.find('=');
    if (eq != std::string::npos) {
      diag::LogSetting s;
      s.name = line.substr(0, eq);
      if (s.name == "@") s.name.clear();
      s.type = diag::kRegSz;
      s.text = line.substr(eq + 1);
      out.push_back(s);
    }
    if (end == std::string::npos) break;
    start = end + 1;
  }
  return out;
}

// ---- device access ----

std::mutex g_deviceMutex;
std::unique_ptr<CWPDHelperLocal> g_device;  // under g_deviceMutex

std::vector<std::string> ToVector(const PtrList<std::string>& list) {
  std::vector<std::string> out;
  for (uint32_t i = 0; i < list.Count(); ++i) out.push_back(list.Get(i) ? *list.Get(i) : std::string());
  return out;
}

}  // namespace

uint32_t Flags() { return Registry_Get_Flags(); }

bool CopyMachineDefaults() {
  bool copied = Registry_CopyMachineDefaults();
  CopyMachineProfileDefaults();
  return copied;
}

void ApplyPendingCacheRoot() {
  std::string pending;
  Registry_Get_CacheRoot(true, &pending, qb::kMaxPath, false);
  if (pending.empty()) return;
  std::string current = CacheFolder();
  if (EqualsNoCaseAZ(current, pending)) return;
  Trace("G25@ApplyPendingCacheRoot: ", "'%s' -> '%s'", current.c_str(), pending.c_str());
  if (!current.empty()) {
    // The folder that holds the cache folder: the cache root's "Quillbox".
    std::error_code ec;
    std::filesystem::remove_all(std::filesystem::path(current).parent_path(), ec);
  }
  Registry_Set_CacheRoot(false, pending.c_str());
}

std::string CacheFolder() {
  std::string folder;
  const char* r = Registry_Get_CacheRoot(false, &folder, qb::kMaxPath, false);
  return r ? folder : std::string();
}

std::string InstallFolder() {
  std::string folder;
  const char* r = Registry_Get_InstallFolder(&folder, qb::kMaxPath);
  return r ? folder : std::string();
}

// ---- device profiles ----

ProfileInfo ReadProfile(const std::string& friendlyName, const std::string& serial) {
  ProfileInfo p;
  p.friendlyName = friendlyName;
  p.serialNumber = serial;
  ProfileRequest request;
  request.sFriendlyName = friendlyName.c_str();
  request.sSerialNumber = serial.c_str();
  request.sAlias = &p.alias;
  request.nAliasCapacity = 21;
  DWORD autoMap = 0, ignore = 0;
  request.pdwAutoMap = &autoMap;
  request.pdwIgnore = &ignore;
  request.bFallBackToDefault = true;
  p.found = ::ReadProfile(&request, false);
  p.autoMap = autoMap;
  p.ignore = ignore;
  return p;
}

std::vector<ProfileInfo> AllProfiles() {
  std::vector<ProfileInfo> out;
  PtrList<ProfileSummary> list;
  if (!EnumerateProfiles(&list)) return out;
  for (uint32_t i = 0; i < list.Count(); ++i) {
    const ProfileSummary* s = list.Get(i);
    if (!s || s->bDefault) continue;
    ProfileInfo p;
    p.found = true;
    p.friendlyName = s->sFriendlyName;
    p.serialNumber = s->sSerialNumber;
    p.alias = s->sAlias;
    p.autoMap = s->dwAutoMap;
    p.ignore = s->dwIgnore;
    out.push_back(p);
  }
  return out;
}

// ---- trace log ----

int OpenLogFile(bool perProcess) {
  diag::LogFileOptions options;
  options.cacheRoot = CacheRootNow();
  options.onePerProcess = perProcess;
  options.buildWord = I18N_Build(true);
  options.settings = SettingsForHeader;
  options.fuseLibraryVersion = DokanVersion();
  options.fuseDriverVersion = DokanDriverVersion();
  return diag::OpenLogFile(options);
}

void StartTrace(int logFd, sys::NamedMutex* mutex) {
  TraceStartOptions options;
  options.logFd = logFd;
  options.writerMutex = mutex;
  TraceStart(options);
}

void StopTrace() { TraceStop(); }

// ---- texts ----

void LoadTexts() { I18N_Init(); }
void UnloadTexts() { I18N_DeInit(); }
std::string TitleError() { return I18N_TitleError(); }
std::string TitleQuestion() { return I18N_TitleQuestion(); }

// ---- device access ----

void StartDeviceAccess() {
  std::lock_guard<std::mutex> lock(g_deviceMutex);
  if (!g_device) g_device = std::make_unique<CWPDHelperLocal>();
  g_device->Init();
}

void StopDeviceAccess() {
  std::lock_guard<std::mutex> lock(g_deviceMutex);
  if (g_device) g_device->DeInit(5000);
}

bool GetDevices(DeviceList* list) {
  *list = DeviceList();
  PtrList<std::string> ids, names, serials, pnps;
  HRESULT hr;
  {
    std::lock_guard<std::mutex> lock(g_deviceMutex);
    if (!g_device) return false;
    hr = g_device->GetDevices(&ids, &names, &serials, &pnps);
  }
  if (FAILED(hr)) return false;
  list->ids = ToVector(ids);
  list->names = ToVector(names);
  list->serials = ToVector(serials);
  list->pnpIds = ToVector(pnps);
  return true;
}

CWPDHelperBase* DeviceAccessObject() {
  std::lock_guard<std::mutex> lock(g_deviceMutex);
  return g_device.get();
}

// ---- drive layer ----

DriveType GetDriveType(char letter) {
  unsigned type = qb::dokan::GetDriveType(letter);
  if (type == qb::dokan::DRIVE_REMOVABLE) return DriveType::kRemovable;
  if (type >= qb::dokan::DRIVE_FIXED) return DriveType::kFixed;
  return DriveType::kNoRootDir;
}

bool IsLetterInUse(char letter) { return !qb::dokan::IsDriveLetterFree(letter); }

int RemoveMountPoint(char letter) {
  char mountPoint[4] = {letter, ':', '\\', 0};
  return DokanRemoveMountPoint(mountPoint);
}

bool ForceRemoveMountPoint(char letter) { return qb::dokan::ForceRemoveMountPoint(letter); }

int DokanVersion() { return static_cast<int>(::DokanVersion()); }
int DokanDriverVersion() { return static_cast<int>(::DokanDriverVersion()); }

// ---- shell ----
void RemoveDriveIcon(char letter) { qb::shell::RemoveDriveIcon(letter); }

// ---- cache ----
// The cache layer rebuilds the table when it lands; until then the table
// starts empty.
void RebuildCacheTable() {}

}  // namespace qb::app::nb
