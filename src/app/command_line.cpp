#include "app/command_line.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <dirent.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "app/launch.h"
#include "app/letter_flow.h"
#include "app/main_codes.h"
#include "app/mapping.h"
#include "app/neighbours.h"
#include "app/storage_list_codec.h"
#include "app/sti_launch.h"
#include "app/super_globals.h"
#include "app/unmount.h"
#include "common/strings.h"
#include "diag/trace.h"
#include "platform/system/paths.h"
#include "platform/portable/portable.h"
#include "platform/system/process_spawn.h"

namespace qb::app {
namespace {

constexpr const char* kTag = "M10@main: ";
constexpr size_t kSelectorCapacity = 300;
// Not a code of `main`: the walk went through all arguments.
constexpr int32_t kWalkCompleted = 0x7FFFFFFF;

int32_t Return(int n, int32_t rc) {
  Trace(kTag, "RETURN[%d]: RC=0x%08X (%s)", n, static_cast<uint32_t>(rc), CodeToName(rc));
  return rc;
}

// "%08X" as the hex values of the command line are read; false when no hex
// digit is there.
bool ReadHex(const std::string& value, uint32_t* out) {
  std::string digits = value.substr(0, 8);
  char* end = nullptr;
  errno = 0;
  unsigned long v = std::strtoul(digits.c_str(), &end, 16);
  if (end == digits.c_str() || errno) return false;
  *out = static_cast<uint32_t>(v);
  return true;
}

// A value that begins with a double quote must end with one; both go.
// `closed` tells whether a begun quote was closed.
std::string Unquote(const std::string& value, bool* closed) {
  *closed = true;
  if (value.empty() || value[0] != '"') return value;
  if (value.size() >= 2 && value.back() == '"') return value.substr(1, value.size() - 2);
  *closed = false;
  return {};
}

// Reads the device list into the invocation and looks the device's PnP id
// up in it.
std::string LookUpPnPId(const std::string& deviceId, Invocation* inv) {
  inv->devices = ReadDeviceList();
  for (const ListedDevice& d : *inv->devices)
    if (d.id == deviceId) return d.pnpId;
  return {};
}

// ---- the unmount command ----

bool IsUnmountCommand(int argc, char** argv, char* letter) {
  if (argc != 3 && argc != 4) return false;
  int u = 0, q = 0, drives = 0;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (IsSwitch(a, "u")) {
      ++u;
    } else if (IsSwitch(a, "q")) {
      ++q;
    } else if (IsDriveArgument(a)) {
      ++drives;
      *letter = a[0];
    }
  }
  return u == 1 && drives == 1 && (argc == 3 || q == 1);
}

int32_t RunUnmountCommand(char letter) {
  CSuperGlobals* globals = SuperGlobals();
  nb::DriveType type = nb::GetDriveType(letter);
  bool mapped = globals && globals->IsDriveMapped(letter);
  Trace(kTag, "Drive %c: type=%d, mapped=%d", letter, static_cast<int>(type), mapped ? 1 : 0);
  if (type == nb::DriveType::kRemovable || (type == nb::DriveType::kFixed && mapped)) {
    UnmountAsync(letter, 5000);
    if (globals) globals->ResetMappedDevice(letter);
    nb::RemoveDriveIconAndPlace(letter);
    return kMainUnmounted;
  }
  if (type == nb::DriveType::kNoRootDir && (mapped || nb::IsInMountTable(letter))) {
    // The server was killed: its mount (or its entry) is left behind. The
    // user asked for the drive to go, so what is left goes.
    Trace(kTag, "Drive %c: has no server; removing what it left", letter);
    nb::ForceRemoveMountPoint(letter);
    if (globals) globals->ResetMappedDevice(letter);
    nb::RemoveDriveIconAndPlace(letter);
    return kMainUnmounted;
  }
  Trace(kTag, "Skipped unmounting %c: as it is not removable drive", letter);
  return kMainNotMappedDrive;
}

// ---- the 'Device Connected' launch ----

int32_t RunStiLaunch(int argc, char** argv, const std::string& device, bool connected, Invocation* inv) {
  const uint32_t flags = nb::Flags();
  if ((flags & 0x80) && (flags & 0x10)) {
    bool startup = argc == 4 && (std::strcmp(argv[3], "/startup") == 0 || std::strcmp(argv[3], "-startup") == 0);
    if (!startup) {
      Trace(kTag, "STI events are ignored when Agent is on");
      return Return(1, 0);
    }
    Trace(kTag, "Continue with startup STI event");
  }
  if (!connected) {
    Trace(kTag, "NON-Connected device event");
    return Return(2, 0);
  }
  Trace(kTag, "Connected device event");
  inv->letter = '?';
  inv->deviceId = device;
  inv->pnpId = LookUpPnPId(device, inv);
  Trace(kTag, "DeviceIDpnp: %s", inv->pnpId.c_str());
  if (inv->pnpId.empty()) {
    Trace(kTag, "Device is unusable, skip it");
    return Return(3, 0);
  }
  inv->openExplorer = true;
  inv->sti = true;
  return Return(4, MapDevice(inv));
}

// ---- the /m device selector ----

struct Found {
  std::string id, pnp;
};

bool FindInList(const nb::DeviceList& list, const std::string& pattern, bool bySerial, int kind, Found* out) {
  if (pattern.empty()) return false;
  const bool skipMapped = (nb::Flags() & 0x100) != 0;
  const auto& keys = bySerial ? list.serials : list.names;
  bool any = false;
  for (size_t i = 0; i < list.ids.size() && i < keys.size(); ++i) {
    if (!MatchPattern(keys[i], pattern)) continue;
    out->id = list.ids[i];
    out->pnp = i < list.pnpIds.size() ? list.pnpIds[i] : "";
    any = true;
    Trace(kTag, "DeviceID[%d:%d:%d]: %s", static_cast<int>(i), static_cast<int>(list.ids.size()), kind,
          out->id.c_str());
    Trace(kTag, "DeviceIDpnp[%d:%d:%d]: %s", static_cast<int>(i), static_cast<int>(list.ids.size()), kind,
          out->pnp.c_str());
    CSuperGlobals* globals = SuperGlobals();
    // With devices told apart by PnP id, one that another instance maps is
    // passed over for a later match; the last match stands otherwise.
    if (!skipMapped || !globals || !globals->IsDeviceMapped(out->id, out->pnp, 0, "", "")) return true;
  }
  return any;
}

int32_t SelectDevice(Invocation* inv) {
  nb::DeviceList list;
  nb::GetDevices(&list);
  Found found;
  bool ok = false;
  switch (inv->deviceKind) {
    case DeviceSelector::kName:
      ok = FindInList(list, inv->deviceSelector, false, 1, &found);
      if (!ok) return kMainNameNotFound;
      break;
    case DeviceSelector::kSerial:
      ok = FindInList(list, inv->deviceSelector, true, 2, &found);
      if (!ok) return kMainSerialNotFound;
      break;
    case DeviceSelector::kAlias: {
      for (const nb::ProfileInfo& p : nb::AllProfiles()) {
        if (inv->deviceSelector.empty() || !MatchPattern(p.alias, inv->deviceSelector)) continue;
        if (!p.serialNumber.empty()) {
          ok = FindInList(list, p.serialNumber, true, 3, &found);
          break;
        }
        if (!p.friendlyName.empty()) {
          ok = FindInList(list, p.friendlyName, false, 3, &found);
          break;
        }
      }
      if (!ok) {
        Trace(kTag, "Alias not found: %s", inv->deviceSelector.c_str());
        return kMainAliasNotFound;
      }
      break;
    }
    case DeviceSelector::kNone:
      return kMainNameNotFound;
  }
  inv->deviceId = found.id;
  inv->pnpId = found.pnp;
  ++inv->mFound;
  return 0;
}

// ---- /b: the agent launch ----

int32_t RelaunchWithoutB(int argc, char** argv) {
  std::vector<std::string> args = {OwnExecutablePath(false)};
  bool changed = false;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (!changed && a.size() == 2 && a[0] == '/' && (a[1] == 'b' || a[1] == 'B')) {
      a = "-b";
      changed = true;
    }
    args.push_back(a);
  }
  std::string line;
  for (size_t i = 1; i < args.size(); ++i) line += (i > 1 ? " " : "") + args[i];
  Trace(kTag, "Relaunch: %s", line.c_str());
  qb::portable::ReleaseIdleDevices();  // the new instance may open a device
  sys::ChildProcess child;
  if (!args[0].empty() && sys::SpawnProcess(args, {}, &child, true)) child.Release();
  return 0;
}

bool HasSlashB(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a.size() == 2 && a[0] == '/' && (a[1] == 'b' || a[1] == 'B')) return true;
  }
  return false;
}

// Returns 1 when the device is to be mapped, 0 to end quietly.
int32_t AgentDevice(const std::string& pnpId, Invocation* inv) {
  for (int attempt = 0; attempt < 100; ++attempt) {
    nb::DeviceList list;
    nb::GetDevices(&list);
    for (size_t i = 0; i < list.ids.size() && i < list.pnpIds.size(); ++i) {
      if (list.pnpIds[i] != pnpId) continue;
      Trace(kTag, "DeviceID: %s", list.ids[i].c_str());
      CSuperGlobals* globals = SuperGlobals();
      if (globals && globals->IsDeviceMapped(list.ids[i], pnpId, 0, "", "")) {
        Trace(kTag, "Device '%s' already mapped", pnpId.c_str());
        return 0;
      }
      inv->deviceId = list.ids[i];
      inv->pnpId = pnpId;
      inv->bDevice = true;
      return 1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  Trace(kTag, "Device '%s' not found", pnpId.c_str());
  return 0;
}

// ---- /o: wait for the previous storage card's drive ----

void WaitForPreviousCard(char letter) {
  std::string root = (sys::DrivesRoot() / std::string(1, ToUpperAZ(letter))).string();
  for (int pass = 0; pass < 20; ++pass) {
    bool found = false;
    if (nb::IsLetterInUse(letter)) {
      if (DIR* dir = opendir(root.c_str())) {
        while (dirent* e = readdir(dir))
          if (std::strcmp(e->d_name, ".") && std::strcmp(e->d_name, "..")) found = true;
        closedir(dir);
      }
    }
    if (found) {
      Trace(kTag, "Storage card mapping for %c: done", letter);
      return;
    }
    CSuperGlobals* globals = SuperGlobals();
    if (globals && globals->IsDriveMapped(letter)) {
      Trace(kTag, "Storage card mapping for %c: done and the drive is empty", letter);
      return;
    }
    Trace(kTag, "Waiting for storage card mapping for %c: to be done", letter);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
  }
}

// Takes the first element of an encoded list as this instance's value and
// keeps the rest for the instances after it.
std::string TakeFirst(const std::string& encoded, std::vector<std::string>* rest) {
  auto items = DecodeStorageList(encoded);
  if (!items || items->empty()) return {};
  std::string first = items->front();
  rest->assign(items->begin() + 1, items->end());
  return first;
}

bool IsValidPipe(int fd) {
  struct stat st {};
  return fd >= 0 && fstat(fd, &st) == 0 && S_ISFIFO(st.st_mode);
}

}  // namespace

namespace {

// The letter of a switch ('/x' or '-x', either case); 0 for any other word.
char SwitchLetter(const char* arg) {
  if (!arg || (arg[0] != '/' && arg[0] != '-')) return 0;
  return static_cast<char>(ToUpperAZ(arg[1]) | 0x20);
}

}  // namespace

bool ServesNoDevice(int argc, char** argv) {
  std::string stiDevice;
  bool connected = false;
  if (IsStiEvent(argc, argv, &stiDevice, &connected)) return false;
  for (int i = 1; i < argc; ++i) {
    const char sw = SwitchLetter(argv[i]);
    if (sw == 'l' || sw == 'b') return false;
  }
  return true;
}

std::string DeviceServedHere(int argc, char** argv) {
  std::string device;
  bool letter = false;
  for (int i = 1; i < argc; ++i) {
    const char sw = SwitchLetter(argv[i]);
    if (sw == 'l') letter = true;
    if (sw == 'i' && i + 1 < argc) device = argv[i + 1];
  }
  return letter ? device : std::string();
}

bool ParseSwitches(int argc, char** argv, Invocation* inv, int32_t* code) {
  *code = ParseSwitchesOrEnd(argc, argv, inv);
  return *code == kWalkCompleted;
}

int32_t ParseSwitchesOrEnd(int argc, char** argv, Invocation* inv) {
  StorageLists& lists = ProcessStorageLists();
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i] ? argv[i] : "";
    if (arg.empty() || (arg[0] != '-' && arg[0] != '/')) {
      if (!IsDriveArgument(arg)) return kMainBadArgument;
      inv->letter = arg[0];
      ++inv->bareDrives;
      continue;
    }
    const char sw = arg.size() > 1 ? static_cast<char>(ToUpperAZ(arg[1]) | 0x20) : 0;
    const char third = arg.size() > 2 ? static_cast<char>(ToUpperAZ(arg[2]) | 0x20) : 0;
    if (sw == '?') return kMainUsage;
    if (sw == 'g' || sw == 'q' || sw == 'x') {
      if (sw == 'g') inv->dokanDebug = true;
      if (sw == 'q') inv->quiet = true;
      if (sw == 'x') inv->openExplorer = true;
      continue;
    }
    if (std::strchr("abcefhilmnoprswy", sw) == nullptr || sw == 0) return kMainBadSwitch;
    if (sw == 'm' && third != 'a' && third != 'n' && third != 's') return kMainBadMOption;
    if (sw == 's' && third != 'n' && third != 'i') return kMainBadSOption;
    if (i + 1 >= argc) return kMainBadSwitch;
    const std::string value = argv[++i];
    uint32_t hex = 0;
    bool closed = true;
    switch (sw) {
      case 'a':
        inv->storageCardIndex = std::atoi(value.c_str());
        if (inv->storageCardIndex < 1 || inv->storageCardIndex > 4) {
          Trace(kTag, "Too many storages: %d", inv->storageCardIndex);
          return kMainTooManyStorages;
        }
        break;
      case 'b':
        if (!(nb::Flags() & 0x80)) return kMainAgentNotAllowed;
        if (HasSlashB(argc, argv)) return RelaunchWithoutB(argc, argv);
        if (!AgentDevice(value, inv)) return kMainDone;
        break;
      case 'c':
        inv->storageObjectId = TakeFirst(value, &lists.objectIds);
        break;
      case 'e':
        inv->event = ReadHex(value, &hex) ? static_cast<int64_t>(hex) : -1;
        break;
      case 'f': {
        std::string f = Unquote(value, &closed);
        inv->format = closed ? f : std::string();
        break;
      }
      case 'h':
        // Window handles do not cross processes here; no owner is kept.
        inv->parentWindow = 0;
        break;
      case 'i':
        inv->deviceId = value;
        inv->pnpId = LookUpPnPId(value, inv);
        Trace(kTag, "DeviceID: %s", inv->deviceId.c_str());
        Trace(kTag, "DeviceIDpnp: %s", inv->pnpId.c_str());
        break;
      case 'l':
        inv->letter = value.empty() ? '?' : value[0];
        ++inv->lSwitches;
        break;
      case 'm': {
        std::string v = Unquote(value, &closed);
        inv->deviceSelector.clear();
        _TcsCpy(&inv->deviceSelector, kSelectorCapacity, v.c_str());
        inv->deviceKind = third == 'a' ? DeviceSelector::kAlias
                          : third == 'n' ? DeviceSelector::kName
                                         : DeviceSelector::kSerial;
        if (int32_t rc = SelectDevice(inv); rc != 0) return rc;
        break;
      }
      case 'n':
        inv->storageName = TakeFirst(value, &lists.names);
        break;
      case 'o':
        WaitForPreviousCard(value.empty() ? '?' : value[0]);
        break;
      case 'p':
        if (ReadHex(value, &hex)) inv->parentPid = hex;
        break;
      case 'r':
        inv->storageIndex = std::atoi(TakeFirst(value, &lists.indices).c_str());
        inv->chained = true;
        break;
      case 's': {
        std::string v = Unquote(value, &closed);
        inv->storageSelector.clear();
        _TcsCpy(&inv->storageSelector, kSelectorCapacity, v.c_str());
        inv->storageKind = third == 'n' ? StorageSelector::kName : StorageSelector::kIndex;
        if (!inv->storageSelector.empty()) ++inv->sValues;
        break;
      }
      case 'w':
        inv->waitWindow = ReadHex(value, &hex) && IsValidPipe(static_cast<int>(hex)) ? static_cast<int>(hex) : -1;
        break;
      case 'y':
        inv->structureFlags = ReadHex(value, &hex) && !(hex & ~0x001F0001u) ? hex : 0x00020000u;
        break;
      default:
        return kMainBadSwitch;
    }
  }
  return kWalkCompleted;
}

int32_t DecideAfterWalk(Invocation* inv) {
  if (inv->bareDrives == 0) {
    if (inv->lSwitches || inv->bDevice) return MapDevice(inv);
    return kMainNothingToMap;
  }
  if (inv->bareDrives == 1 && inv->mFound == 1 && inv->sValues <= 1) {
    const bool byName = inv->storageKind == StorageSelector::kName;
    return MapThroughChild(inv->deviceId, inv->letter, inv->format, byName ? inv->storageSelector : "",
                           byName ? "" : inv->storageSelector);
  }
  if (inv->bareDrives == 1 && inv->lSwitches == 1) {
    if (inv->storageSelector.empty())
      Trace(kTag, "Directly mapping \"%s\" to %c: via command-line", inv->deviceId.c_str(), inv->letter);
    else
      Trace(kTag, "Directly mapping \"%s\" (%s) to %c: via command-line", inv->deviceId.c_str(),
            inv->storageSelector.c_str(), inv->letter);
    return MapDevice(inv);
  }
  return kMainMissingMOption;
}

int32_t QuillboxMain(int argc, char** argv) {
  Trace(kTag, "ENTER argc=%d", argc);
  CSuperGlobals* globals = SuperGlobals();
  if (!globals || !globals->IsInitialized()) return Return(1, kMainNotInitialized);
  for (int i = 0; i < argc; ++i) Trace(kTag, "argv[%d]=%s", i, argv[i]);

  Invocation inv;
  std::string stiDevice;
  bool connected = false;
  if (IsStiEvent(argc, argv, &stiDevice, &connected))
    return Return(2, RunStiLaunch(argc, argv, stiDevice, connected, &inv));

  char letter = 0;
  if (IsUnmountCommand(argc, argv, &letter)) return Return(3, RunUnmountCommand(letter));

  if (argc == 2 && (std::strcmp(argv[1], "/startup") == 0 || std::strcmp(argv[1], "-startup") == 0))
    return Return(4, StartupScan());

  if (argc < 2) return Return(5, kMainNothingToMap);

  int32_t rc = 0;
  if (!ParseSwitches(argc, argv, &inv, &rc)) return Return(6, rc);
  return Return(7, DecideAfterWalk(&inv));
}

}  // namespace qb::app
