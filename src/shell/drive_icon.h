#pragma once
// The drive's icon and label for file managers: one key per mapped letter
// under HKEY_CURRENT_USER\Software\Classes\Applications\Explorer.exe\Drives,
// marked "Quillbox" so that only our own keys are ever removed.
#include <cstdint>
#include <string>

#include "platform/system/codes.h"

namespace qb::shell {

constexpr const char* kDrivesKey = "Software\\Classes\\Applications\\Explorer.exe\\Drives";
constexpr const char* kOwnerMark = "Quillbox";

// The icon location for a device type: the program's icon file with the
// index of the type when an install folder is recorded, else the system's
// image-device icons. `installFolder` and `programFolder` are where the icon
// file is looked for.
std::string DriveIconLocation(uint32_t deviceType, const std::string& installFolder,
                              const std::string& programFolder);

// Registers the icon (and the label, when given) of the letter. 0 or
// E_UNEXPECTED. The device's own icon cannot be taken from a Linux shell, so
// `useDeviceIcon` falls back to the program's icon.
HRESULT SetDriveIcon(char letter, const char* label, uint32_t deviceType, const std::string& pnpId,
                     bool useDeviceIcon);

// Removes the letter's keys when they carry our mark; the container goes
// when it is empty. 0 or E_UNEXPECTED.
HRESULT RemoveDriveIcon(char letter);

}  // namespace qb::shell
