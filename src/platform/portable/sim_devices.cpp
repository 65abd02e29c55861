// Simulated devices on disk: their property files, faults, connection state.
#include "platform/portable/sim_devices.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <system_error>
#include <thread>

#include "common/strings.h"
#include "platform/portable/portable.h"
#include "platform/portable/sim_ini.h"
#include "platform/system/paths.h"

namespace fs = std::filesystem;

namespace qb::portable::sim {
namespace {

const char* const kFaultsLock = "faults.lock";

StorageSpec ReadStorage(const fs::path& dir) {
  IniValues v;
  ReadIni(dir / kStorageFile, &v);
  StorageSpec s;
  s.folder = dir.filename().string();
  s.name = IniText(v, "name", s.folder);
  s.capacity = IniNumber(v, "capacity", s.capacity);
  std::string free = IniText(v, "free_space", "computed");
  if (free != "computed") {
    IniValues one{{"f", free}};
    uint64_t n = IniNumber(one, "f", UINT64_MAX);
    if (n != UINT64_MAX) s.freeSpace = n;
  }
  s.type = static_cast<uint32_t>(IniNumber(v, "type", s.type));
  s.fileSystem = IniText(v, "file_system", s.fileSystem);
  s.description = IniText(v, "description", s.name);
  return s;
}

bool WriteStorage(const fs::path& deviceDir, const StorageSpec& s, std::string* error) {
  fs::path dir = deviceDir / s.folder;
  std::error_code ec;
  fs::create_directories(dir, ec);
  if (ec) {
    if (error) *error = "cannot create " + dir.string() + ": " + ec.message();
    return false;
  }
  IniValues v{{"name", s.name},
              {"capacity", std::to_string(s.capacity)},
              {"free_space", s.freeSpace ? std::to_string(*s.freeSpace) : "computed"},
              {"type", std::to_string(s.type)},
              {"file_system", s.fileSystem},
              {"description", s.description.empty() ? s.name : s.description}};
  return WriteIni(dir / kStorageFile, v, "storage of a simulated device", error);
}

// Faults are read and changed under faults.lock.
class FaultsLock : public ScopedFileLock {
 public:
  explicit FaultsLock(const fs::path& folder) : ScopedFileLock(folder / kFaultsLock) {}
};

bool WriteFaultsLocked(const fs::path& folder, const Faults& f, std::string* error) {
  IniValues v{{"busy", std::to_string(f.busy)},
              {"offline", f.offline ? "1" : "0"},
              {"fail_after", f.failAfter < 0 ? "none" : std::to_string(f.failAfter)},
              {"rate", std::to_string(f.rate)},
              {"readonly", f.readOnly ? "1" : "0"},
              {"no_write", f.noWrite ? "1" : "0"},
              {"no_move", f.noMove ? "1" : "0"}};
  return WriteIni(folder / kFaultsFile, v, "injected faults (quillbox-simdev fault)", error);
}

}  // namespace

fs::path DeviceFolder(const std::string& folder) { return qb::sys::SimulatedDevicesRoot() / folder; }

bool IsValidFolderName(const std::string& folder) {
  if (folder.empty() || folder[0] == '.' || folder.size() > 100) return false;
  return std::all_of(folder.begin(), folder.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_' ||
           c == '.';
  });
}

bool ReadDevice(const fs::path& folder, DeviceSpec* spec, std::string* error) {
  IniValues v;
  if (!ReadIni(folder / kDeviceFile, &v)) {
    if (error) *error = folder.string() + " is not a simulated device (no " + kDeviceFile + ")";
    return false;
  }
  DeviceSpec d;
  d.folder = folder.filename().string();
  d.friendlyName = IniText(v, "friendly_name", d.folder);
  d.serialNumber = IniText(v, "serial_number", d.folder);
  d.manufacturer = IniText(v, "manufacturer", d.manufacturer);
  d.model = IniText(v, "model", d.model);
  d.description = IniText(v, "description", d.description);
  d.firmwareVersion = IniText(v, "firmware_version", d.firmwareVersion);
  d.deviceType = static_cast<uint32_t>(IniNumber(v, "device_type", d.deviceType));
  d.powerLevel = static_cast<uint32_t>(std::min<uint64_t>(100, IniNumber(v, "power_level", d.powerLevel)));
  d.protocol = IniText(v, "protocol", d.protocol);
  d.supportsWrite = IniFlag(v, "supports_write", true);
  d.supportsMove = IniFlag(v, "supports_move", true);
  d.refuseReadWrite = IniFlag(v, "refuse_read_write", false);
  std::error_code ec;
  d.connected = !fs::exists(folder / kDisconnectedFile, ec);
  std::vector<fs::path> dirs;
  for (const auto& entry : fs::directory_iterator(folder, ec)) {
    std::error_code ec2;
    if (entry.is_directory(ec2) && fs::exists(entry.path() / kStorageFile, ec2)) dirs.push_back(entry.path());
  }
  std::sort(dirs.begin(), dirs.end());
  for (const auto& dir : dirs) d.storages.push_back(ReadStorage(dir));
  *spec = std::move(d);
  return true;
}

bool WriteDevice(const DeviceSpec& spec, std::string* error) {
  if (!IsValidFolderName(spec.folder)) {
    if (error) *error = "invalid device folder name '" + spec.folder + "' (use letters, digits, '-', '_', '.')";
    return false;
  }
  fs::path dir = DeviceFolder(spec.folder);
  std::error_code ec;
  fs::create_directories(dir, ec);
  if (ec) {
    if (error) *error = "cannot create " + dir.string() + ": " + ec.message();
    return false;
  }
  IniValues v{{"friendly_name", spec.friendlyName},
              {"serial_number", spec.serialNumber.empty() ? spec.folder : spec.serialNumber},
              {"manufacturer", spec.manufacturer},
              {"model", spec.model},
              {"description", spec.description},
              {"firmware_version", spec.firmwareVersion},
              {"device_type", std::to_string(spec.deviceType)},
              {"power_level", std::to_string(spec.powerLevel)},
              {"protocol", spec.protocol},
              {"supports_write", spec.supportsWrite ? "1" : "0"},
              {"supports_move", spec.supportsMove ? "1" : "0"},
              {"refuse_read_write", spec.refuseReadWrite ? "1" : "0"}};
  for (const auto& s : spec.storages) {
    if (!IsValidFolderName(s.folder)) {
      if (error) *error = "invalid storage folder name '" + s.folder + "'";
      return false;
    }
    if (!WriteStorage(dir, s, error)) return false;
  }
  // device.ini last: a device becomes visible once it is complete.
  return WriteIni(dir / kDeviceFile, v, "simulated portable device", error);
}

std::vector<DeviceSpec> ListDevices() {
  std::vector<DeviceSpec> out;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(qb::sys::SimulatedDevicesRoot(), ec)) {
    DeviceSpec d;
    std::error_code ec2;
    if (entry.is_directory(ec2) && ReadDevice(entry.path(), &d, nullptr)) out.push_back(std::move(d));
  }
  std::sort(out.begin(), out.end(), [](const DeviceSpec& a, const DeviceSpec& b) { return a.folder < b.folder; });
  return out;
}

bool FindDevice(const std::string& name, fs::path* folder, std::string* error) {
  auto devices = ListDevices();
  for (const auto& d : devices) {
    if (d.folder == name) {
      *folder = DeviceFolder(d.folder);
      return true;
    }
  }
  std::vector<std::string> hits;
  for (const auto& d : devices)
    if (qb::EqualsNoCaseAZ(d.friendlyName, name)) hits.push_back(d.folder);
  if (hits.size() == 1) {
    *folder = DeviceFolder(hits[0]);
    return true;
  }
  if (error) {
    if (hits.empty())
      *error = "no simulated device named '" + name + "'";
    else
      *error = "several simulated devices are named '" + name + "'; name one by its folder";
  }
  return false;
}

namespace {

// Deletes a folder tree that other processes may still write to while they
// notice the device is gone (lock files, an index save, an upload's
// .partial/): each round removes what the last one missed.
bool RemoveTree(const fs::path& dir, std::error_code* ec) {
  constexpr int kRounds = 50;  // 20 ms apart: at most about a second
  for (int round = 0; round < kRounds; ++round) {
    ec->clear();
    fs::remove_all(dir, *ec);
    std::error_code probe;
    if (!fs::exists(dir, probe) && !probe) {
      ec->clear();
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  if (!*ec) *ec = std::make_error_code(std::errc::directory_not_empty);
  return false;
}

}  // namespace

bool RemoveDevice(const fs::path& folder, std::string* error) {
  std::error_code ec;
  if (!fs::exists(folder / kDeviceFile, ec)) {
    if (error) *error = folder.string() + " is not a simulated device";
    return false;
  }
  // device.ini goes first: every process that has the device open sees it
  // gone from then on and writes nothing more back. Then the folder moves
  // to a hidden name, so nobody reaches it by its path while it is deleted.
  fs::remove(folder / kDeviceFile, ec);
  if (ec) {
    if (error) *error = "cannot remove " + folder.string() + ": " + ec.message();
    return false;
  }
  fs::path doomed = folder.parent_path() /
                    qb::Format(".removing-%s-%d", folder.filename().string().c_str(), static_cast<int>(getpid()));
  if (rename(folder.c_str(), doomed.c_str()) != 0) doomed = folder;
  if (!RemoveTree(doomed, &ec)) {
    if (error) *error = "cannot remove " + folder.string() + ": " + ec.message();
    return false;
  }
  return true;
}

bool SetConnected(const fs::path& folder, bool connected, std::string* error) {
  std::error_code ec;
  if (!fs::exists(folder / kDeviceFile, ec)) {
    if (error) *error = folder.string() + " is not a simulated device";
    return false;
  }
  if (connected) {
    fs::remove(folder / kDisconnectedFile, ec);
    if (ec) {
      if (error) *error = "cannot connect: " + ec.message();
      return false;
    }
    return true;
  }
  return WriteFileAtomic(folder / kDisconnectedFile, "unplugged\n", error);
}

Faults ReadFaults(const fs::path& folder) {
  IniValues v;
  Faults f;
  if (!ReadIni(folder / kFaultsFile, &v)) return f;
  f.busy = static_cast<uint32_t>(IniNumber(v, "busy", 0));
  f.offline = IniFlag(v, "offline", false);
  uint64_t after = IniNumber(v, "fail_after", UINT64_MAX);
  f.failAfter = after == UINT64_MAX ? -1 : static_cast<int64_t>(after);
  f.rate = IniNumber(v, "rate", 0);
  f.readOnly = IniFlag(v, "readonly", false);
  f.noWrite = IniFlag(v, "no_write", false);
  f.noMove = IniFlag(v, "no_move", false);
  return f;
}

bool WriteFaults(const fs::path& folder, const Faults& faults, std::string* error) {
  std::error_code ec;
  if (!fs::exists(folder / kDeviceFile, ec)) {
    if (error) *error = folder.string() + " is not a simulated device";
    return false;
  }
  FaultsLock lock(folder);
  return WriteFaultsLocked(folder, faults, error);
}

bool ConsumeBusy(const fs::path& folder) {
  std::error_code ec;
  if (!fs::exists(folder / kFaultsFile, ec)) return false;
  FaultsLock lock(folder);
  Faults f = ReadFaults(folder);
  if (f.busy == 0) return false;
  --f.busy;
  WriteFaultsLocked(folder, f, nullptr);
  return true;
}

std::string SimPnpId(const DeviceSpec& spec) {
  std::string serial;
  for (char c : spec.serialNumber.empty() ? spec.folder : spec.serialNumber)
    serial += (c == '#' || c == '\\' || c == ' ') ? '_' : c;
  return MakePnpDeviceId(kBus, spec.folder, serial);
}

}  // namespace qb::portable::sim
