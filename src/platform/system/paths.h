#pragma once
// Where the program keeps its things. QUILLBOX_HOME=H moves all of them at
// once under H (tests use a fresh H each); without it they follow the XDG
// locations a Linux user expects.
#include <filesystem>
#include <string>

namespace qb::sys {

// The QUILLBOX_HOME folder, or empty when it is not set.
std::filesystem::path HomeOverride();

std::filesystem::path UserHivePath();        // HKEY_CURRENT_USER
std::filesystem::path MachineHivePath();     // HKEY_LOCAL_MACHINE
std::filesystem::path LocalAppDataDir();     // local application-data folder
std::filesystem::path CommonAppDataDir();    // common application-data folder (language files)
std::filesystem::path DrivesRoot();          // mount points <root>/<LETTER>
std::filesystem::path SimulatedDevicesRoot();
std::filesystem::path TempDir();
// Name of the shared section for this user (and home).
std::string SharedSectionName();
// Folder of the running executable (for the programs installed beside it).
std::filesystem::path ExecutableDir();
std::filesystem::path ExecutablePath();

}  // namespace qb::sys
