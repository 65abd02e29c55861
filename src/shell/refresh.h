#pragma once
// The shell refresh: tells every program that a path on the drive changed
// (the kernel's cached entry, attributes and data are dropped), on a thread
// of its own so that no caller waits.
#include <cstdint>
#include <string>

namespace qb::shell {

// `path` and `path2` are drive paths without the letter ("\DCIM\a.jpg");
// with `touch` the folder is listed first so that the drive answers before
// the change is announced. Nothing happens without a path.
// Lists the folder (a path on the local system) from a short-lived process
// of its own, which nobody waits for: a drive's server must never wait for
// its own drive, or it could not end while the request is pending.
void TouchFolder(const std::string& folder);

void RefreshShell(uint32_t event, const char* path, const char* path2, char letter, bool touch,
                  uint32_t delaySeconds);

}  // namespace qb::shell
