#include "app/neighbours.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
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
#include "shell/places.h"

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

HRESULT IgnoreDeviceEvent(const char*, const char*, uint32_t, const char*, uint32_t, const char*, const char*,
                          const uint32_t*, const uint64_t*, const FILETIME*, const FILETIME*) {
  return S_OK;
}

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
  Registry_Get_CacheRoot(true, &pending, qb::kMaxPath, true);
  while (pending.size() > 1 && pending.back() == '/') pending.pop_back();
  std::string root = CacheRootNow();
  while (root.size() > 1 && root.back() == '/') root.pop_back();
  if (!pending.empty() && !EqualsNoCaseAZ(root, pending)) {
    std::string folder = CacheFolder();
    Trace("G25@ApplyPendingCacheRoot: ", "'%s' -> '%s'", root.c_str(), pending.c_str());
    if (!folder.empty()) {
      // Only the cache folder goes: its parent "Quillbox" folder also holds
      // the trace log (open now) and rescued data, which must stay.
      std::error_code ec;
      std::filesystem::remove_all(folder, ec);
      std::filesystem::remove(std::filesystem::path(folder).parent_path(), ec);  // only when empty
    }
    Registry_Set_CacheRoot(false, pending.c_str());
  }
  // Taken over, equal or unusable: it must not apply again at every start.
  Registry_Clear_CacheRootPending();
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
std::string FormatText(int id, const char* a, const char* b) {
  return b ? I18N_Format(id, {a, b}) : I18N_Format(id, {a});
}
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

bool DeviceAccessFailed() {
  std::lock_guard<std::mutex> lock(g_deviceMutex);
  return !g_device || FAILED(g_device->InitResult());
}

std::vector<std::string> StorageNames(const std::string& deviceId) {
  PtrList<std::string> names, values;
  HRESULT hr;
  {
    // The device is opened only for this reading; its events are not wanted.
    std::lock_guard<std::mutex> lock(g_deviceMutex);
    if (!g_device) return {};
    hr = g_device->RegisterEventHandler(deviceId.c_str(), IgnoreDeviceEvent);
    if (SUCCEEDED(hr)) {
      hr = g_device->GetDeviceProps(&names, &values, 0, 1, 0, nullptr);
      g_device->DeRegisterEventHandler();
    }
  }
  std::vector<std::string> out;
  if (FAILED(hr)) return out;
  bool inStorage = false;
  for (uint32_t i = 0; i < names.Count() && i < values.Count(); ++i) {
    const std::string name = names.Get(i) ? *names.Get(i) : std::string();
    if (name == "WPD_STORAGE_INDEX") inStorage = true;
    if (inStorage && name == "WPD_OBJECT_NAME") {
      out.push_back(values.Get(i) ? *values.Get(i) : std::string());
      inStorage = false;
    }
  }
  return out;
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

bool IsInMountTable(char letter) {
  const std::string wanted = qb::dokan::MountPointOf(letter).string();
  std::ifstream table("/proc/self/mountinfo");
  std::string line;
  while (std::getline(table, line)) {
    // Fields: id, parent, major:minor, root, mount point (blanks as \040).
    std::istringstream fields(line);
    std::string skip, point;
    fields >> skip >> skip >> skip >> skip >> point;
    std::string decoded;
    for (size_t i = 0; i < point.size(); ++i) {
      auto octal = [&](size_t at) { return at < point.size() && point[at] >= '0' && point[at] <= '7'; };
      if (point[i] == '\\' && octal(i + 1) && octal(i + 2) && octal(i + 3)) {
        decoded += static_cast<char>((point[i + 1] - '0') * 64 + (point[i + 2] - '0') * 8 + (point[i + 3] - '0'));
        i += 3;
      } else {
        decoded += point[i];
      }
    }
    if (decoded == wanted) return true;
  }
  return false;
}

int DokanVersion() { return static_cast<int>(::DokanVersion()); }
int DokanDriverVersion() { return static_cast<int>(::DokanDriverVersion()); }

// ---- shell ----
void RemoveDriveIcon(char letter) { qb::shell::RemoveDriveIcon(letter); }

void RemoveDriveIconAndPlace(char letter) {
  qb::shell::RemoveDriveIcon(letter);
  qb::shell::RemoveDrivePlace(letter);
}

void RemoveStalePlaces() { qb::shell::RemoveStalePlaces(); }

// ---- cache ----
// The cache layer rebuilds the table when it lands; until then the table
// starts empty.
void RebuildCacheTable() {}

}  // namespace qb::app::nb
