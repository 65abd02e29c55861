// The mount loop: the refusals (device mapped already, letter served by
// another instance), the mount with its retries, and what follows a refusal
// or a failed mount.
#include "app/letter_choice.h"
#include "app/letter_flow.h"
#include "app/main_codes.h"
#include "app/mapping_dialog.h"
#include "app/mapping_messages.h"
#include "app/mapping_stages.h"
#include "app/mapping_state.h"
#include "app/neighbours.h"
#include "app/super_globals.h"
#include "common/strings.h"
#include "diag/trace.h"
#include "drive/drive.h"
#include "i18n/i18n.h"
#include "platform/dokan/dokan.h"
#include "platform/system/remote_session.h"

namespace qb::app {
namespace {

constexpr const char* kTag = "M69@MountLoop: ";
constexpr int kMaxAttempts = 3;

struct Refusal {
  bool refused = false;
  std::string text;
  int32_t code = 0;
};

// Hands the parent's event to the letter's entry (again: the device-mapped
// test frees a stale entry of the letter, event included).
void BindParentEvent(const MappingState& m) {
  CSuperGlobals* g = SuperGlobals();
  const Invocation& inv = *m.inv;
  if (g && inv.event >= 0 && inv.parentPid)
    g->CreateMappingFinishedEvent(m.letter, static_cast<uint64_t>(inv.event), static_cast<pid_t>(inv.parentPid));
}

// Moves the preparations over to another letter.
void MoveToLetter(MappingState* m, DriveState* drive, char letter) {
  if (CSuperGlobals* g = SuperGlobals()) g->RemoveMappingFinishedEvent(m->letter);
  m->letter = letter;
  g_currentDriveLetter = letter;
  drive->cDriveLetter = letter;
  drive->pCache->SetCacheParams(nb::CacheFolder(), letter);
  BindParentEvent(*m);
}

bool IsDeviceListed(const MappingState& m) {
  nb::DeviceList list;
  nb::GetDevices(&list);
  const bool byPnP = (nb::Flags() & 0x100) != 0;
  for (size_t i = 0; i < list.ids.size(); ++i) {
    if (!EqualsNoCaseAZ(list.ids[i], m.deviceId)) continue;
    if (!byPnP || (i < list.pnpIds.size() && list.pnpIds[i] == m.pnpId)) return true;
  }
  return false;
}

// The device (with this storage selector) served at another letter.
Refusal CheckDeviceMapped(const MappingState& m) {
  Refusal r;
  const Invocation& inv = *m.inv;
  const bool byName = inv.storageKind == StorageSelector::kName;
  const std::string name = byName ? inv.storageSelector : "", index = byName ? "" : inv.storageSelector;
  char at = SuperGlobals()->IsDeviceMapped(m.deviceId, m.pnpId, 0, name, index);
  if (!at || inv.chained || !IsDeviceListed(m)) return r;
  const char upper = static_cast<char>(ToUpperAZ(at));
  std::string mapped = I18N_Format(109, {I18N_GetAlready(false, false), upper});
  r.refused = true;
  if (inv.storageSelector.empty()) {
    r.text = I18N_Format(-1, {m.friendlyName, mapped});
    r.code = kMainDeviceMapped;
  } else {
    r.text = I18N_Format(-45, {m.friendlyName, inv.storageSelector}) + mapped;
    r.code = kMainStorageMapped;
  }
  Trace(kTag, "%s", r.text.c_str());
  return r;
}

// Another live instance serves the letter.
bool ServedByOther(char letter) {
  CSuperGlobals* g = SuperGlobals();
  return g && g->IsDriveMapped(letter) && !IsLetterFree(letter);
}

DOKAN_OPTIONS OptionsFor(const MappingState& m, const std::string& mountPoint) {
  DOKAN_OPTIONS o{};
  o.Version = static_cast<USHORT>(DOKAN_VERSION);
  o.SingleThread = 1;
  o.Options = sys::IsRemoteSession() ? 0 : DOKAN_OPTION_REMOVABLE;
  if (m.inv->dokanDebug) o.Options |= DOKAN_OPTION_DEBUG;
  o.MountPoint = mountPoint.c_str();
  return o;
}

std::string ResultText(int result) {
  switch (result) {
    case DOKAN_SUCCESS: return I18N_Success();
    case DOKAN_ERROR: return I18N_Error();
    case DOKAN_DRIVE_LETTER_ERROR: return I18N_BadDriveLetter();
    case DOKAN_MOUNT_ERROR: return I18N_CannotAssignDriveLetter();
    default: return Format("%s: %d", I18N_DriverError(), result);
  }
}

// DokanMain until the drive is unmounted; retries a letter the system
// refused for an automatic mapping (three mounts in all).
int MountAndServe(MappingState* m, DriveState* drive) {
  DokanInit();
  for (int mount = 1;; ++mount) {
    const std::string mountPoint = Format("%c:\\", static_cast<char>(ToUpperAZ(m->letter)));
    DOKAN_OPTIONS options = OptionsFor(*m, mountPoint);
    Trace(kTag, "Mount: %s %d %d", mountPoint.c_str(), static_cast<int>(options.Options), mount);
    ResetMountStartUp();
    CreateCrawlerWorker(drive);
    const int result = DokanMain(&options, MappingOperations());
    const bool letterRefused = result == DOKAN_DRIVE_LETTER_ERROR || result == DOKAN_MOUNT_ERROR;
    char next = 0;
    if (letterRefused && m->automatic && !m->directChild && mount < kMaxAttempts)
      next = PolicyLetter(m->profile.policy, m->profile.multiCardSupport, m->inv->chained, m->nextCardLetter,
                          IsLetterFree);
    StopCrawlerWorker(drive, 1000);
    if (!next) {
      Trace(kTag, "Done: %d", result);
      DokanShutdown();
      return result;
    }
    Trace(kTag, "Drive letter %c: not available[2], trying %c:", m->letter, next);
    MoveToLetter(m, drive, next);
  }
}

// A refusal or a failed mount: the user learns of it (or the parent does).
int32_t AfterFailure(MappingState* m, const Refusal& r, bool* again) {
  *again = false;
  CSuperGlobals* g = SuperGlobals();
  if (m->directChild) {
    // The parent learns the reason from the exit code; a signalled event
    // would read as success.
    if (g) g->RemoveMappingFinishedEvent(m->letter);
    return r.code;
  }
  if (m->quiet) {
    ShowWarning(r.text);
    if (g) g->SignalMappingFinishedEvent(m->letter, "main");
    return r.code;
  }
  const char before = m->letter;
  int result = ShowMappingDlg(m, r.text);
  if (result == kDialogChosen) {
    Trace(kTag, "Selected drive letter '%c'", m->letter);
    char chosen = m->letter;
    m->letter = before;
    *again = true;
    return static_cast<int32_t>(chosen);
  }
  if (result != kDialogIgnore) LaunchNextCard(m, true);
  Trace(kTag, "Dialog cancelled:%d", result);
  return r.code;
}

}  // namespace

bool RefusedBeforeOpening(MappingState* m, int32_t* code) {
  if (!(m->directChild || m->quiet) || ServedByOther(m->letter)) return false;
  Refusal r = CheckDeviceMapped(*m);
  if (!r.refused) return false;
  bool again = false;
  *code = AfterFailure(m, r, &again);
  return true;
}

int32_t MountLoop(MappingState* m, DriveState* drive) {
  CSuperGlobals* g = SuperGlobals();
  int attempts = 0;
  for (;;) {
    if (!g || !g->IntegrityCheck(m->letter)) return 0;
    Refusal r;
    if (!ServedByOther(m->letter)) {
      r = CheckDeviceMapped(*m);
    } else if (m->automatic && !m->directChild && ++attempts <= kMaxAttempts) {
      char next = PolicyLetter(m->profile.policy, m->profile.multiCardSupport, m->inv->chained, m->nextCardLetter,
                               IsLetterFree);
      if (next) {
        Trace(kTag, "Drive letter %c: not available[1], trying %c:", m->letter, next);
        MoveToLetter(m, drive, next);
        continue;
      }
    }
    if (!r.refused && ServedByOther(m->letter)) {
      r = {true, I18N_Format(106, {static_cast<char>(ToUpperAZ(m->letter))}), m->directChild ? kMainLetterUnavailable : 0};
    }
    if (!r.refused) {
      BindParentEvent(*m);
      WriteMappingProfile(m->profile);
      drive->pDirectory->Dump(CDirectory::kDumpFiles | CDirectory::kDumpPersistFolders | CDirectory::kDumpStorageRoots,
                              "", nullptr, nullptr);
      if (m->inv->bareDrives == 0 || m->directChild) LaunchNextCard(m, false);
      const int result = MountAndServe(m, drive);
      if (result == DOKAN_SUCCESS) return 0;
      const bool letter = result == DOKAN_DRIVE_LETTER_ERROR || result == DOKAN_MOUNT_ERROR;
      r = {true, ResultText(result), m->directChild ? (letter ? kMainLetterUnavailable : kMainChildFailed) : 0};
    }
    bool again = false;
    int32_t rc = AfterFailure(m, r, &again);
    if (!again) return rc;
    MoveToLetter(m, drive, static_cast<char>(rc));
  }
}

}  // namespace qb::app
