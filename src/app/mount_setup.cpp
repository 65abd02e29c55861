// The start-up of the new drive: its first request once it is mounted (the
// volume query that answers the kernel's first request, or any other)
// runs SetupIconAndSignalParent, which records the drive in the shared
// state, registers its icon, signals the instance that started this one,
// and opens the drive or runs the user's program.
#include <atomic>
#include <future>
#include <mutex>
#include <system_error>

#include "app/mapping_stages.h"
#include "app/mapping_state.h"
#include "app/neighbours.h"
#include "app/super_globals.h"
#include "common/strings.h"
#include "diag/trace.h"
#include "drive/drive.h"
#include "platform/dokan/dokan_linux.h"
#include "platform/system/process_spawn.h"
#include "settings/settings.h"
#include "shell/drive_icon.h"
#include "shell/places.h"

namespace qb::app {
namespace {

constexpr const char* kTag = "M70@SetupIconAndSignalParent: ";

// Set by the Mounted slot: requests before it (the volume query that names
// the mount) reach a drive that nobody can see yet.
std::atomic<bool> g_mounted{false};
std::mutex g_setupMutex;

NTSTATUS MappingMounted(LPCWSTR mountPoint, PDOKAN_FILE_INFO info) {
  NTSTATUS status = STATUS_SUCCESS;
  if (const DOKAN_OPERATIONS* drive = QuillboxOperations(); drive && drive->Mounted)
    status = drive->Mounted(mountPoint, info);
  g_mounted = true;
  return status;
}

void Start(const std::vector<std::string>& argv) {
  sys::ChildProcess child;
  if (sys::SpawnProcess(argv, {}, &child, true)) child.Release();
  else Trace(kTag, "Cannot start \"%s\"", argv[0].c_str());
}

// Opens the drive in the file manager and runs the user's program, each
// once and only when the settings ask for it.
void OpenAndRun(MappingState* m) {
  const uint32_t flags = nb::Flags();
  const std::string root = dokan::MountPointOf(m->letter).string();
  if ((flags & 0x4) && m->openExplorer.exchange(false)) Start({"xdg-open", root});
  if (!(flags & 0x40) || !m->runProgram.exchange(false)) return;
  std::string program, arguments;
  Registry_Get_ProgramToRun(&program, kMaxPath);
  Registry_Get_ProgramToRunArguments(&arguments, 520);
  const std::string letter(1, static_cast<char>(ToUpperAZ(m->letter)));
  for (size_t p = 0; (p = arguments.find("%L", p)) != std::string::npos; p += letter.size())
    arguments.replace(p, 2, letter);
  if (program.empty()) return;
  std::vector<std::string> argv = sys::SplitCommandLine(arguments);
  argv.insert(argv.begin(), program);
  Start(argv);
}

// The place's label in file managers: the alias the user gave the device,
// else its name, with the storage when the drive shows one storage card.
std::string PlaceLabel(const MappingState& m, const std::string& storage) {
  std::string label = m.profile.alias.empty() ? m.friendlyName : m.profile.alias;
  if (!m.storageName.empty() && !storage.empty()) label += " [" + storage + "]";
  return label;
}

}  // namespace

DOKAN_OPERATIONS* MappingOperations() {
  static DOKAN_OPERATIONS table = [] {
    DOKAN_OPERATIONS t = *QuillboxOperations();
    t.Mounted = MappingMounted;
    return t;
  }();
  return &table;
}

void ResetMountStartUp() {
  g_mounted = false;
  Mapping().setupDone = false;
}

void SetupIconAndSignalParent(const char* reason) {
  MappingState& m = Mapping();
  if (m.setupDone || !g_mounted) return;
  std::lock_guard<std::mutex> lock(g_setupMutex);
  if (m.setupDone) return;
  CSuperGlobals* g = SuperGlobals();
  if (!g) return;
  const char letter = m.letter;
  Trace(kTag, "%c:%s", letter, reason ? reason : "");
  const std::string storage = m.storageName.empty() ? m.onlyStorageName : m.storageName;
  g->SetMappedDevice(letter, m.deviceId, m.deviceType, m.friendlyName, m.profile.alias, m.serialNumber,
                     m.pnpIdOrEmpty, storage, Format("%d", m.storageIndex));
  // The icon (registry) and the place (bookmark files) each wait for their
  // files to reach the disk, and the command waits for both: side by side.
  const char upper = static_cast<char>(ToUpperAZ(letter));
  auto addPlace = [&] { shell::AddDrivePlace(upper, PlaceLabel(m, storage), m.deviceType); };
  std::future<void> place;
  try {
    place = std::async(std::launch::async, addPlace);
  } catch (const std::system_error&) {
    addPlace();  // no thread to be had
  }
  shell::SetDriveIcon(upper, nullptr, m.deviceType, m.pnpId, (nb::Flags() & 0x8) != 0);
  if (place.valid()) place.wait();
  m.setupDone = true;
  g->SignalMappingFinishedEvent(letter, reason);
  if (DriveState* drive = GetDriveState()) StopCrawlerWorker(drive, 0);
  RefreshDriveFreeSpace();
  OpenAndRun(&m);
}

}  // namespace qb::app
