#pragma once
// Starting child instances: the own-executable path, the child's command
// line (LaunchQuillbox) and the wait of a command-line mapping for its child.
#include <sys/types.h>

#include <cstdint>
#include <string>

#include "platform/system/process_spawn.h"

namespace qb::app {

// The install folder (machine default value) + "/quillbox"; when that file
// does not exist, the folder of the running program. Empty without the
// install value. With `quoted` a path holding a blank is enclosed in double
// quotes.
std::string OwnExecutablePath(bool quoted);

// The arguments of LaunchQuillbox, in the designed order. The main window
// and the two unused values are left out: this program has no window lists
// to read the letter and device from.
struct LaunchRequest {
  bool mount = true;             // false: " /u X:"
  uint64_t parentWindow = 0;
  int event = -1;                // mapping-finished event descriptor
  std::string format;
  int waitWindow = -1;           // progress pipe descriptor
  const bool* openExplorer = nullptr;
  std::string deviceId;
  char letter = 0;               // 0: none given
  std::string storageName;
  std::string storageIndex;
};

// The child's command line (at most 520 characters); empty when nothing is
// to be launched.
std::string BuildChildCommandLine(const LaunchRequest& request);

// Starts the child with the event and the progress pipe inherited. An
// invalid ChildProcess when nothing was launched.
sys::ChildProcess LaunchQuillbox(const LaunchRequest& request);

// Role 5: maps `deviceId` to `letter` through a child and waits for it:
// 100 ms passes, at most 300. Returns 23, -23, -25 or the child's relayed
// code.
int32_t MapThroughChild(const std::string& deviceId, char letter, const std::string& format,
                        const std::string& storageName, const std::string& storageIndex);

}  // namespace qb::app
