#include "app/letter_flow.h"

#include "app/launch.h"
#include "app/main_codes.h"
#include "app/letter_choice.h"
#include "app/mapping_device.h"
#include "app/mapping_dialog.h"
#include "app/mapping_state.h"
#include "app/neighbours.h"
#include "common/strings.h"
#include "diag/trace.h"
#include "ui/message_box.h"

namespace qb::app {
namespace {

constexpr const char* kTag = "M62@ChooseDriveLetter: ";

HRESULT IgnoreEvents(const char*, const char*, uint32_t, const char*, uint32_t, const char*, const char*,
                     const uint32_t*, const uint64_t*, const FILETIME*, const FILETIME*) {
  return S_OK;
}

// Step 1: the device in the device list. False when it is not listed.
// The list /i read is used again: reading it opens every device.
bool LookUpDevice(MappingState* m) {
  const std::vector<ListedDevice> rows = m->inv->devices ? *m->inv->devices : ReadDeviceList();
  for (const ListedDevice& d : rows) {
    if (!EqualsNoCaseAZ(d.id, m->deviceId)) continue;
    m->friendlyName = d.name;
    m->serialNumber = d.serial;
    if (m->pnpId.empty()) m->pnpId = d.pnpId;
    return true;
  }
  return false;
}

// Steps 2 to 4: the profile and how the device is mapped. False when the
// device is to be ignored.
bool ReadChoices(MappingState* m) {
  const Invocation& inv = *m->inv;
  m->profile = ReadMappingProfile(m->friendlyName, m->serialNumber, m->pnpId);
  const int card = inv.storageCardIndex;
  m->nextCardLetter = card < 4 ? m->profile.letters[card] : 0;
  m->format = !inv.format.empty() ? inv.format : m->profile.formatString;
  m->structureFlags = inv.chained ? inv.structureFlags : m->profile.fileSystem;
  m->directChild = inv.bareDrives == 1 && inv.lSwitches == 1;
  bool ignoreDisregarded = false;
  if (m->directChild) {
    if (inv.storageSelector.empty())
      Trace(kTag, "Directly mapping device \"%s\" to %c: via command-line", m->deviceId.c_str(), m->letter);
    else
      Trace(kTag, "Directly mapping device \"%s\" (%s) to %c: via command-line", m->deviceId.c_str(),
            inv.storageSelector.c_str(), m->letter);
  }
  // An instance of the chain was started by one that mapped automatically.
  m->automatic = m->directChild || inv.chained || ((inv.sti || inv.bDevice) && m->profile.autoMap);
  if (m->automatic && inv.chained && m->letter != '?') {
    m->quiet = true;
    ignoreDisregarded = true;
  }
  if (!m->automatic) m->letter = '?';
  if (m->profile.ignore && !ignoreDisregarded) {
    Trace(kTag, "Device ignored");
    return false;
  }
  return true;
}

LetterOutcome EndWith(int32_t code) { return {false, code}; }

LetterOutcome RunDialog(MappingState* m) {
  int result = ShowMappingDlg(m, "");
  if (result == kDialogChosen) {
    Trace(kTag, "Selected drive letter '%c'", m->letter);
    RereadMappingChoices(&m->profile);
    m->structureFlags = m->profile.fileSystem;
    const int card = m->inv->storageCardIndex;
    m->nextCardLetter = card < 4 ? m->profile.letters[card] : 0;
    return {true, 0};
  }
  if (result != kDialogIgnore) PassToNextCard(m);
  Trace(kTag, "Dialog Cancelled:%d", result);
  CloseDevice();
  return EndWith(0);
}

}  // namespace

std::vector<ListedDevice> ReadDeviceList() {
  nb::DeviceList list;
  nb::GetDevices(&list);
  auto at = [](const std::vector<std::string>& v, size_t n) { return n < v.size() ? v[n] : std::string(); };
  std::vector<ListedDevice> rows;
  for (size_t i = 0; i < list.ids.size(); ++i)
    rows.push_back({list.ids[i], at(list.names, i), at(list.serials, i), at(list.pnpIds, i)});
  return rows;
}

LetterOutcome ChooseDriveLetter(MappingState* m) {
  Trace(kTag, "ENTER %s, %c", m->deviceId.c_str(), m->letter);
  if (!LookUpDevice(m)) {
    m->letter = '?';
    return RunDialog(m);
  }
  if (!ReadChoices(m)) return EndWith(kMainDeviceIgnored);
  m->shiftHeld = m->automatic && ui::IsLeftShiftHeld();
  if (!m->automatic || m->shiftHeld) {
    m->letter = '?';
    return RunDialog(m);
  }
  const int card = m->inv->storageCardIndex;
  LetterInputs in;
  in.letter = m->letter;
  in.preferred = m->profile.letters[card - 1];
  in.nextCard = m->nextCardLetter;
  in.policy = m->profile.policy;
  in.multiCardSupport = m->profile.multiCardSupport;
  in.chained = m->inv->chained;
  in.directChild = m->directChild;
  LetterDecision d = DecideLetter(in, IsLetterFree);
  switch (d.step) {
    case LetterStep::kMount:
      m->letter = d.letter;
      return {true, 0};
    case LetterStep::kEnd:
      return EndWith(d.code);
    case LetterStep::kSkipCard:
      PassToNextCard(m);
      Trace(kTag, "Skipped");
      CloseDevice();
      return EndWith(0);
    case LetterStep::kDialog:
      break;
  }
  m->letter = '?';
  return RunDialog(m);
}

void PassToNextCard(MappingState* m) {
  StorageLists& lists = ProcessStorageLists();
  if (lists.indices.empty() && SUCCEEDED(OpenDevice(m->deviceId, IgnoreEvents))) {
    std::vector<StorageInfo> storages;
    if (SUCCEEDED(ReadStorages(m->profile.ignoredStoragesList, &storages)))
      FillListsAfterCard(storages, m->inv->storageCardIndex, &lists);
  }
  LaunchNextCard(m, true);
}

void LaunchNextCard(MappingState* m, bool noWait) {
  const StorageLists& lists = ProcessStorageLists();
  if (lists.indices.empty()) return;
  NextCardRequest r;
  r.ownLine = OwnCommandLine();
  r.executable = OwnExecutablePath(true);
  r.deviceId = m->deviceId;
  r.format = m->format;
  r.nextLetter = m->nextCardLetter;
  r.currentLetter = m->letter;
  // A launch whose own line carries a parent's event or a bare drive gets a
  // line of its own.
  r.newLine = m->inv->sti || m->inv->bDevice || m->directChild;
  r.noWait = noWait;
  r.cardIndex = m->inv->storageCardIndex;
  r.structureFlags = m->structureFlags;
  std::string line = NextCardLine(r, lists);
  if (!line.empty()) StartNextCard(line);
}

}  // namespace qb::app
