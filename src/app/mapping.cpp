#include "app/mapping.h"

#include <chrono>
#include <memory>
#include <thread>

#include "app/cache_table.h"
#include "app/letter_choice.h"
#include "app/letter_flow.h"
#include "app/main_codes.h"
#include "app/mapping_messages.h"
#include "app/mapping_device.h"
#include "app/mapping_stages.h"
#include "app/mapping_state.h"
#include "app/neighbours.h"
#include "app/offline_watch.h"
#include "app/super_globals.h"
#include "app/unmount.h"
#include "common/strings.h"
#include "diag/trace.h"
#include "drive/drive.h"
#include "i18n/i18n.h"
#include "platform/dokan/dokan_linux.h"
#include "settings/settings.h"
#include "shell/drive_icon.h"
#include "shell/refresh.h"

namespace qb::app {
namespace {

constexpr const char* kTag = "M60@MapDevice: ";
// How long programs may keep files open on a drive whose device went.
constexpr uint32_t kDeviceGoneAbortMs = 2000;

int32_t Return(int n, int32_t rc) {
  Trace(kTag, "RETURN[%d]: RC=0x%08X (%s)", n, static_cast<uint32_t>(rc), CodeToName(rc));
  return rc;
}

void StartFromInvocation(MappingState* m, Invocation* inv) {
  m->inv = inv;
  m->letter = inv->letter;
  m->deviceId = inv->deviceId;
  m->pnpId = inv->pnpId;
  m->quiet = inv->quiet;
  m->openExplorer = inv->openExplorer;
  m->runProgram = true;
  if (inv->chained) {
    m->storageIndex = inv->storageIndex;
    m->storageName = inv->storageName;
    m->storageObjectId = inv->storageObjectId;
  }
}

// The drive goes when its device went (removed, offline, shared state
// lost). It is detached at once, and the programs that are reading get the
// drive's error (EIO) rather than a connection cut under them: the kernel
// asks a failed read again before the program learns of it, so no moment
// between two requests is safe to cut. Files still open after the limit
// end with the connection.
void UnmountDeviceGone(bool failure) {
  const char letter = Mapping().letter;
  if (failure) Trace(kTag, "Something went wrong with the drive '%c', terminating.", letter);
  if (dokan::DetachMountPoint(letter, kDeviceGoneAbortMs)) return;
  ForceUnmount(letter, failure, true);
}

void UnmountOffline() { UnmountDeviceGone(true); }

// What the drive needs of this room and the shell, handed over as hooks.
// The hooks read the letter when they run: the mount loop may move the
// mapping to another letter.
DriveHooks MakeHooks() {
  DriveHooks h;
  h.fnSetupIconAndSignalParent = [](const char* reason) { SetupIconAndSignalParent(reason); };
  h.fnIntegrityCheck = [] { return SuperGlobals() && SuperGlobals()->IntegrityCheck(Mapping().letter); };
  h.fnForceUnmount = [](bool failure) { UnmountDeviceGone(failure); };
  h.fnResetMappedDevice = [] { return SuperGlobals() && SuperGlobals()->ResetMappedDevice(Mapping().letter); };
  h.fnRemoveDriveIcon = [] { nb::RemoveDriveIconAndPlace(Mapping().letter); };
  h.fnRefreshShell = [](uint32_t event, const std::string& path) {
    shell::RefreshShell(event, path.c_str(), nullptr, Mapping().letter, false, 0);
  };
  h.fnCheckAllNonSignalledDevices = [] {
    if (SuperGlobals()) SuperGlobals()->CheckAllNonSignalledDevices(0);
  };
  h.fnShowError = [](int textId) { ShowErrorText(textId); };
  return h;
}

// "Delaying MTP init": some devices answer only after a while.
void DelayAutomaticMapping(const MappingState& m) {
  const uint32_t delay = Registry_Get_AutomapDelay();
  if (!m.automatic || m.storageIndex >= 2 || delay < 1 || delay > 30) return;
  nb::StopDeviceAccess();
  Trace(kTag, "Delaying MTP init by %d seconds", static_cast<int>(delay));
  std::this_thread::sleep_for(std::chrono::seconds(delay));
  nb::StartDeviceAccess();
}

// The drive's device access: a device that goes offline ends the mapping.
CWPDHelperBase* WatchedDeviceAccess() {
  static COfflineWatch watch(DeviceAccess(), UnmountOffline);
  return &watch;
}

std::unique_ptr<DriveState> CreateDrive(MappingState* m, CSuperGlobals* globals) {
  auto drive = std::make_unique<DriveState>();
  drive->cDriveLetter = m->letter;
  drive->pGlobals = globals;
  drive->pHelper = WatchedDeviceAccess();
  drive->dwStructureFlags = m->structureFlags;
  drive->sDeviceID = m->deviceId;
  drive->sDevicePnpID = m->pnpId;
  drive->dwExpiryIntervalSec = Registry_Get_ExpiryDirlistInterval();
  drive->hooks = MakeHooks();
  drive->pCache = std::make_unique<CCache>(nb::CacheFolder(), m->letter, m->deviceId, SharedCacheTable());
  return drive;
}

void CreateTree(const MappingState& m, DriveState* drive) {
  drive->pDirectory = std::make_unique<CDirectory>();
  drive->pDirectory->AddExcludePatterns(m.profile.excludeList.c_str());
  drive->pDirectory->AddIgnoredStorages(m.profile.ignoredStoragesList.c_str());
}

// The drive is torn down in a fixed order; a worker that does not end in
// time may still touch the state, which then stays allocated.
void Teardown(MappingState* m, std::unique_ptr<DriveState> drive) {
  Trace(kTag, "Teardown %c:", m->letter);
  CloseDevice();
  {
    std::lock_guard<std::mutex> lock(drive->hTempFilesMutex);
    Trace(kTag, "GetCount()=%d", static_cast<int>(drive->TempFiles.size()));
  }
  if (!StopDriveWorkers(drive.get(), kWorkerStopLimitMs)) {
    Trace(kTag, "Workers still running; the drive's state stays");
    (void)drive.release();
  } else {
    SetDriveState(nullptr);
    drive.reset();
  }
  CSuperGlobals* globals = SuperGlobals();
  // A letter that is taken again belongs to a newer instance (the same
  // device mapped again after an unmount): its entry and icon stay.
  if (globals && m->setupDone && IsLetterFree(m->letter)) {
    MappedDeviceInfo info;
    const char16_t* id = globals->GetMappedDevice(m->letter, &info);
    if (id && EqualsNoCaseAZ(info.deviceId, m->deviceId)) globals->ResetMappedDevice(m->letter);
    nb::RemoveDriveIconAndPlace(m->letter);
  }
}

int32_t ServeDrive(MappingState* m) {
  g_currentDriveLetter = m->letter;
  CSuperGlobals* globals = SuperGlobals();
  if (!globals || !globals->IntegrityCheck(m->letter)) return kMainIntegrityFailed;
  const Invocation& inv = *m->inv;
  if (inv.event >= 0 && inv.parentPid)
    globals->CreateMappingFinishedEvent(m->letter, static_cast<uint64_t>(inv.event), static_cast<pid_t>(inv.parentPid));
  if (int32_t refused = 0; RefusedBeforeOpening(m, &refused)) return refused;
  std::unique_ptr<DriveState> drive = CreateDrive(m, globals);
  DelayAutomaticMapping(*m);
  ShowProgress(I18N_AccessingTheDevice());
  CreateTree(*m, drive.get());
  SetDriveState(drive.get());
  int32_t rc = 0;
  if (!CreateEventWorker(drive.get()) || !CreateDownloadWorker(drive.get())) {
    Trace(kTag, "Workers not started");
  } else if (FAILED(OpenDevice(m->deviceId, WPDEventCallback))) {
    Trace(kTag, "RegisterEventHandler failed");
  } else {
    bool listed = false;
    rc = SelectAndList(m, drive.get(), &listed);
    if (listed && PrepareMount(m, drive.get())) rc = MountLoop(m, drive.get());
  }
  Teardown(m, std::move(drive));
  return rc;
}

}  // namespace

int32_t MapDevice(Invocation* inv) {
  Trace(kTag, "ENTER device=\"%s\", pnp=\"%s\", letter=%c, card=%d, flags=0x%08X, sti=%d", inv->deviceId.c_str(),
        inv->pnpId.c_str(), inv->letter, inv->storageCardIndex, inv->structureFlags, inv->sti ? 1 : 0);
  MappingState& m = Mapping();
  StartFromInvocation(&m, inv);
  LetterOutcome outcome = ChooseDriveLetter(&m);
  if (!outcome.mount) return Return(1, outcome.code);
  return Return(2, ServeDrive(&m));
}

}  // namespace qb::app
