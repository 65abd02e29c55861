#pragma once
// Simulated devices on disk: each is a folder under the simulated-devices
// root (qb::sys::SimulatedDevicesRoot()) holding
//   device.ini        the device's properties (key=value lines)
//   faults.ini        injected faults, shared with other processes
//   index.ini         object ids and persistent unique ids (kept by the model)
//   disconnected      present while the device is unplugged
//   <storage>/        one folder per storage: .storage.ini with its
//                     properties, the rest is the storage's content
// This header is the administration side (the quillbox-simdev tool and the
// tests); the object model reaches the same folders through portable.h.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace qb::portable::sim {

inline constexpr const char* kDeviceFile = "device.ini";
inline constexpr const char* kFaultsFile = "faults.ini";
inline constexpr const char* kIndexFile = "index.ini";
inline constexpr const char* kDisconnectedFile = "disconnected";
inline constexpr const char* kStorageFile = ".storage.ini";
inline constexpr const char* kPartialDir = ".partial";  // uploads before commit
inline constexpr const char* kBus = "simdev";           // the PnP id's bus part

struct StorageSpec {
  std::string folder;                  // sub-folder name
  std::string name = "Internal storage";
  uint64_t capacity = 8ull << 30;
  std::optional<uint64_t> freeSpace;   // none: computed from the content
  uint32_t type = 3;                   // WPD_STORAGE_TYPE_FIXED_RAM
  std::string fileSystem = "FAT32";
  std::string description;
};

struct DeviceSpec {
  std::string folder;                  // folder name under the root
  std::string friendlyName = "Simulated device";
  std::string serialNumber;
  std::string manufacturer = "Quillbox";
  std::string model = "Simulated device";
  std::string description = "Simulated portable device";
  std::string firmwareVersion = "1.0";
  uint32_t deviceType = 3;             // WPD_DEVICE_TYPE_PHONE
  uint32_t powerLevel = 100;
  std::string protocol = "MTP: 1.00";
  bool supportsWrite = true;
  bool supportsMove = true;
  bool refuseReadWrite = false;        // Open for read/write gives E_ACCESSDENIED
  std::vector<StorageSpec> storages;
  bool connected = true;               // read only: no "disconnected" file
};

struct Faults {
  uint32_t busy = 0;            // answer E_ERROR_BUSY to the next N requests
  bool offline = false;         // every request answers WIA_ERROR_OFFLINE
  int64_t failAfter = -1;       // a transfer fails once it moved this many bytes
  uint64_t rate = 0;            // bytes per second of a transfer, 0 unlimited
  bool readOnly = false;        // refuse read/write access
  bool noWrite = false;         // no WRITE_OBJECT_DATA command
  bool noMove = false;          // no MOVE_OBJECTS command
  bool operator==(const Faults&) const = default;
};

// Folder of the device named `folder` under the root.
std::filesystem::path DeviceFolder(const std::string& folder);
// True for a usable folder name: letters, digits, '-', '_', '.', not starting with '.'.
bool IsValidFolderName(const std::string& folder);

// Reads a device folder; false (with a message) when it is not a device.
bool ReadDevice(const std::filesystem::path& folder, DeviceSpec* spec, std::string* error);
// Writes device.ini and every storage's .storage.ini (creating folders).
bool WriteDevice(const DeviceSpec& spec, std::string* error);
// Every device under the root, connected or not, ordered by folder name.
std::vector<DeviceSpec> ListDevices();
// A device by folder name or friendly name (folder name first, then the
// friendly name ignoring ASCII case); false with a message when none or
// several match.
bool FindDevice(const std::string& name, std::filesystem::path* folder, std::string* error);
// Deletes the device folder (raises "device removed" for open devices),
// also while other processes still have it open and write to it.
bool RemoveDevice(const std::filesystem::path& folder, std::string* error);
bool SetConnected(const std::filesystem::path& folder, bool connected, std::string* error);

Faults ReadFaults(const std::filesystem::path& folder);
bool WriteFaults(const std::filesystem::path& folder, const Faults& faults, std::string* error);
// Takes one busy answer when any is left (under the faults file's lock).
bool ConsumeBusy(const std::filesystem::path& folder);

// The PnP id of a simulated device.
std::string SimPnpId(const DeviceSpec& spec);

// Creates the demo device ("Quillbox Demo Phone", folder "demo") with its two
// storages and sample pictures, music and documents, or brings back missing
// sample files of an existing one. Its folder in `folder`.
bool CreateDemoDevice(std::filesystem::path* folder, std::string* error);
inline constexpr const char* kDemoFolder = "demo";

}  // namespace qb::portable::sim
