#include "shell/drive_icon.h"

#include <filesystem>

#include "common/strings.h"
#include "diag/trace.h"
#include "platform/registry/registry.h"
#include "platform/system/paths.h"
#include "settings/settings.h"

namespace qb::shell {
namespace {

constexpr const char* kTagSet = "T1@SetDriveIcon: ";
constexpr const char* kTagRemove = "T2@RemoveDriveIcon: ";
constexpr const char* kIconFile = "QuillboxFB.exe";

int IconIndexOfType(uint32_t deviceType) {
  switch (deviceType) {
    case 0: return 2;
    case 2: return 3;
    case 3: return 4;
    default: return 1;
  }
}

std::string InstallFolder() {
  std::string folder;
  return Registry_Get_InstallFolder(&folder, qb::kMaxPath) ? folder : std::string();
}

std::string LetterKey(char letter) { return std::string(1, static_cast<char>(ToUpperAZ(letter))); }

}  // namespace

std::string DriveIconLocation(uint32_t deviceType, const std::string& installFolder,
                              const std::string& programFolder) {
  if (installFolder.empty()) return Format("wiashext.dll,%s", deviceType == 1 ? "-101" : "-114");
  std::filesystem::path file = std::filesystem::path(installFolder) / kIconFile;
  std::error_code ec;
  if (!std::filesystem::exists(file, ec)) file = std::filesystem::path(programFolder) / kIconFile;
  return Format("%s,%d", file.string().c_str(), IconIndexOfType(deviceType));
}

HRESULT SetDriveIcon(char letter, const char* label, uint32_t deviceType, const std::string& pnpId,
                     bool useDeviceIcon) {
  Trace(kTagSet, "Drive=%c", letter);
  Trace(kTagSet, "Type=%u, device=\"%s\", device icon=%d", deviceType, pnpId.c_str(), useDeviceIcon ? 1 : 0);
  // One change of the user's settings (one write to disk): this runs while
  // the mapping's starter waits.
  const std::string drive = std::string(kDrivesKey) + "\\" + LetterKey(letter);
  const std::string location = DriveIconLocation(deviceType, InstallFolder(), sys::ExecutableDir().string());
  std::vector<qb::reg::Key::NewKey> keys{{drive, {qb::reg::Key::StringValue("", kOwnerMark)}},
                                         {drive + "\\DefaultIcon", {qb::reg::Key::StringValue("", location)}}};
  if (label) keys.push_back({drive + "\\DefaultLabel", {qb::reg::Key::StringValue("", label)}});
  qb::reg::Key user;
  DWORD rc = user.Open(HKEY_CURRENT_USER, "", KEY_ALL_ACCESS);
  if (rc == ERROR_SUCCESS) rc = user.CreateKeysWithValues(std::move(keys));
  if (rc != ERROR_SUCCESS) {
    Trace(kTagSet, "Error creating registry key \"%s\", error=%d", drive.c_str(), static_cast<int>(rc));
    return E_UNEXPECTED;
  }
  return S_OK;
}

HRESULT RemoveDriveIcon(char letter) {
  Trace(kTagRemove, "Drive=%c", letter);
  const std::string path = std::string(kDrivesKey) + "\\" + LetterKey(letter);
  qb::reg::Key drive;
  if (drive.Open(HKEY_CURRENT_USER, path, KEY_ALL_ACCESS) != ERROR_SUCCESS) return S_OK;
  std::string mark;
  // Someone else's icon: leave it.
  if (drive.GetString("", &mark) != ERROR_SUCCESS || mark != kOwnerMark) return S_OK;
  HRESULT result = S_OK;
  DWORD rc = drive.DeleteKey("DefaultIcon");
  if (rc == ERROR_ACCESS_DENIED) result = E_UNEXPECTED;
  drive.DeleteKey("DefaultLabel");
  drive.Close();
  qb::reg::Key container;
  if (container.Open(HKEY_CURRENT_USER, kDrivesKey, KEY_ALL_ACCESS) != ERROR_SUCCESS) return result;
  container.DeleteKey(LetterKey(letter));
  container.Close();
  qb::reg::Key parent;
  if (parent.Open(HKEY_CURRENT_USER, "Software\\Classes\\Applications\\Explorer.exe", KEY_ALL_ACCESS) ==
      ERROR_SUCCESS)
    parent.DeleteKey("Drives");  // refused while other letters are left
  return result;
}

}  // namespace qb::shell
