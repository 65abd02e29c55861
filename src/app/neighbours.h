#pragma once
// Every call this room makes into its neighbours (settings, profiles, trace
// log, texts, device access, drive layer, shell) passes through here, so
// that each such call sits in one place. The instance code includes only
// this header for them.
#include <cstdint>
#include <string>
#include <vector>

class CWPDHelperBase;

namespace qb::sys {
class NamedMutex;
}

namespace qb::app::nb {

// ---- settings (SOFTWARE\Quillbox) ----
uint32_t Flags();
bool CopyMachineDefaults();   // settings and the default profile
// Takes CacheRootPending over when it differs from the current cache folder.
void ApplyPendingCacheRoot();
// The cache folder (cache root + Quillbox/QUILLBOX_CACHE); empty when none.
std::string CacheFolder();
// The install folder (machine default value), empty when not set.
std::string InstallFolder();

// ---- device profiles ----
struct ProfileInfo {
  bool found = false;
  std::string friendlyName, serialNumber, alias;
  uint32_t autoMap = 0, ignore = 0;
};
// The profile of a device, with fall-back to the default profile.
ProfileInfo ReadProfile(const std::string& friendlyName, const std::string& serial);
// Every device profile (name and serial of its key, and its alias).
std::vector<ProfileInfo> AllProfiles();

// ---- trace log ----
// Opens (rotating) the log file of this process and writes its header;
// -1 when it cannot be created.
int OpenLogFile(bool perProcess);
// Starts the writer over the shared log file and mutex; Stop drains it.
void StartTrace(int logFd, sys::NamedMutex* mutex);
void StopTrace();

// ---- texts ----
void LoadTexts();
void UnloadTexts();
std::string TitleError();
// Text `id` formatted with one or two strings (b null: one).
std::string FormatText(int id, const char* a, const char* b = nullptr);
std::string TitleQuestion();

// ---- device access ----
struct DeviceList {
  std::vector<std::string> ids, names, serials, pnpIds;
};
void StartDeviceAccess();
void StopDeviceAccess();  // 5000 ms limit
// False when the list could not be read (empty lists then).
bool GetDevices(DeviceList* list);
// The device-access object reported a failed start.
bool DeviceAccessFailed();
// The names of a device's storages, in the device's order.
std::vector<std::string> StorageNames(const std::string& deviceId);
// The device-access object itself (null before StartDeviceAccess); it lives
// until the process ends.
CWPDHelperBase* DeviceAccessObject();

// ---- drive layer ----
enum class DriveType { kNoRootDir, kRemovable, kFixed };
// As the unmount command sees "X:\": C is the system disk, a mounted mount
// point is removable, anything else has no root folder.
DriveType GetDriveType(char letter);
// True when the letter is in use (the free-letter test).
bool IsLetterInUse(char letter);
// Removes the mount point "X:\"; non-zero on success.
int RemoveMountPoint(char letter);
// Removal by force of a drive whose server does not answer.
bool ForceRemoveMountPoint(char letter);
// The letter's mount point is in the mount table (also a mount whose server
// was killed). Reads only the table, never the mount.
bool IsInMountTable(char letter);
int DokanVersion();
int DokanDriverVersion();

// ---- shell ----
void RemoveDriveIcon(char letter);
// The icon and the file managers' place of the letter.
void RemoveDriveIconAndPlace(char letter);
// Places left by killed instances go at every start.
void RemoveStalePlaces();

// ---- cache ----
// Rebuilds the shared cache table from the cache folder and trims the
// content to CacheSize.
void RebuildCacheTable();

}  // namespace qb::app::nb
