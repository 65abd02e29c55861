#pragma once
// The process-wide state of the one mapping an instance makes: what the
// letter choice, the preparation, the mount and SetupIconAndSignalParent
// share. Written by the command-line thread before the mount; afterwards
// only read (SetupIconAndSignalParent runs on the drive's request thread and
// touches only `setupDone`, `openExplorer` and `runProgram`).
#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "app/invocation.h"
#include "app/mapping_profile.h"
#include "app/storage_choice.h"

namespace qb::app {

struct MappingState {
  Invocation* inv = nullptr;
  char letter = '?';
  char nextCardLetter = 0;
  // The device as recorded for the drive.
  std::string deviceId, pnpId, friendlyName, serialNumber, alias;
  std::string pnpIdOrEmpty;  // the PnP id only with Flags bit 0x100
  uint32_t deviceType = 0;
  // The storage this drive serves (index 0: the whole device).
  int storageIndex = 0;
  std::string storageName, storageObjectId, onlyStorageName;
  std::vector<StorageInfo> storages;  // as the device listed them (ignored ones removed)
  MappingProfile profile;
  std::string format;         // /f, else the profile's FormatString
  uint32_t structureFlags = 0x00020000;
  bool automatic = false;     // mapped without asking (direct child, 'Device Connected', chain)
  bool directChild = false;   // one bare drive argument and one /l
  bool quiet = false;
  bool shiftHeld = false;
  std::atomic<bool> openExplorer{false}, runProgram{false};
  std::atomic<bool> setupDone{false};
};

MappingState& Mapping();

// Sends the progress text to the parent's wait window (/w), when there is one.
void ShowProgress(const std::string& text);

}  // namespace qb::app
