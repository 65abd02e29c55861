#pragma once
// The storage that this instance serves, and the chain of instances by which
// every further storage card of the device gets a drive of its own: each
// instance maps one storage and starts the instance for the next, handing on
// the storages still to be mapped in the lists of /r, /n and /c.
#include <cstdint>
#include <string>
#include <vector>

#include "app/invocation.h"

namespace qb::app {

// One storage as the device's property lists describe it: a group that
// begins with "WPD_STORAGE_INDEX", then "WPD_OBJECT_ID" and "WPD_OBJECT_NAME".
struct StorageInfo {
  std::string index, objectId, name;
};
std::vector<StorageInfo> StoragesOf(const std::vector<std::string>& names, const std::vector<std::string>& values);

// What the selection gives this instance.
struct StorageChoice {
  bool chosen = false;       // a storage was chosen (else the whole device)
  int index = 0;             // its WPD_STORAGE_INDEX
  std::string name, objectId;
  std::string onlyStorageName;  // the device's only storage, when it has one
};

// The selection over the storages (ignored ones already removed). Returns 0,
// or -26 when the selector names no storage. The storages after this
// instance's go to `lists` (emptied first) when a choice is made.
int32_t SelectStorage(const std::vector<StorageInfo>& storages, bool readFailed, uint32_t multiCardSupport,
                      bool chained, StorageSelector kind, const std::string& selector, StorageChoice* choice,
                      StorageLists* lists);

// Empties the lists and appends the storages at places beyond card N (1-based).
void FillListsAfterCard(const std::vector<StorageInfo>& storages, int card, StorageLists* lists);

// The command line of the instance for the next storage card, or empty when
// none is to be started ("Command line problem", lists of unequal length).
struct NextCardRequest {
  std::string ownLine;         // this process's command line
  std::string executable;      // the own executable (quoted when needed)
  std::string deviceId, format;
  char nextLetter = 0;         // 0: none ('?' is passed)
  char currentLetter = 0;
  bool newLine = false;        // build a fresh line (STI, /b or direct child)
  bool noWait = false;         // leave out /o
  int cardIndex = 1;
  uint32_t structureFlags = 0;
};
std::string NextCardLine(const NextCardRequest& request, const StorageLists& lists);

// Starts `line` as a process of its own (nothing inherited); false when it
// could not be started.
bool StartNextCard(const std::string& line);

// This process's command line, arguments joined by blanks (those holding a
// blank in double quotes).
std::string OwnCommandLine();

}  // namespace qb::app
