#pragma once
// What `main` makes of the command line, and the state of the process that
// the instance roles share.
#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qb::app {

enum class StorageSelector { kNone, kName, kIndex };
enum class DeviceSelector { kNone, kName, kSerial, kAlias };

// One row of the device list.
struct ListedDevice {
  std::string id, name, serial, pnpId;
};

// The invocation record; every field starts at zero or empty.
struct Invocation {
  std::string deviceId;          // /i, /b, or found by /m
  std::string pnpId;             // looked up from the device list
  char letter = '?';             // '?' none chosen yet
  int storageCardIndex = 1;      // /a, 1 to 4
  uint32_t structureFlags = 0x00020000;  // /y
  std::string format;            // /f; empty: the profile's FormatString
  std::string storageSelector;   // /sn, /si
  StorageSelector storageKind = StorageSelector::kNone;
  std::string deviceSelector;    // /mn, /ms, /ma
  DeviceSelector deviceKind = DeviceSelector::kNone;
  uint64_t parentWindow = 0;     // /h
  int waitWindow = -1;           // /w: progress pipe descriptor, -1 none
  uint32_t parentPid = 0;        // /p
  int64_t event = -1;            // /e: descriptor number, -1 none
  bool quiet = false;            // /q
  bool openExplorer = false;     // /x
  bool dokanDebug = false;       // /g
  bool sti = false;              // started for 'Device Connected'
  bool chained = false;          // /r: one of a chain of storage cards
  // This instance's storage from the lists.
  int storageIndex = 0;
  std::string storageName, storageObjectId;
  // Counters of the walk.
  int bareDrives = 0, lSwitches = 0, mFound = 0, sValues = 0;
  bool bDevice = false;          // /b named a device
  // The device list as it was read to look the device's PnP id up; the
  // letter choice finds the device in it again (each reading of the list
  // opens every device, twice).
  std::optional<std::vector<ListedDevice>> devices;
};

// The lists of storages still to be mapped by later instances (/r, /n, /c).
struct StorageLists {
  std::vector<std::string> indices, names, objectIds;
  void Clear() {
    indices.clear();
    names.clear();
    objectIds.clear();
  }
};
StorageLists& ProcessStorageLists();

// The drive letter this process serves (0 none); read by the session-end
// handler.
extern std::atomic<char> g_currentDriveLetter;

// "X" or "x" followed by ":" and nothing else.
bool IsDriveArgument(const std::string& arg);
// "/"+word or "-"+word, the word compared case-insensitively (A-Z).
bool IsSwitch(const std::string& arg, const char* word);
// Pattern match: "*" any run, "?" any character, case-insensitive (A-Z).
bool MatchPattern(const std::string& text, const std::string& pattern);
// The quiet flag of the command-line thread: any argument after the first
// is "/q" or "-q" (any case).
bool HasQuietSwitch(int argc, char** argv);

}  // namespace qb::app
