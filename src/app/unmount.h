#pragma once
// Removing a drive's mount point, from the serving instance or any other,
// with time limits and a forced removal when the drive's server does not
// answer; and the session-end handling of a serving instance.
#include <atomic>
#include <cstdint>
#include <functional>

namespace qb::app {

// The drive-layer calls that the unmount code makes. Tests put their own in
// to see retries and time limits that a real drive cannot be made to show.
struct UnmountCalls {
  std::function<int(char)> removeMountPoint;        // non-zero on success
  std::function<bool(char)> forceRemoveMountPoint;  // true when nothing stays mounted
};
// Replaces the calls (empty members: the drive layer's); returns the old ones.
UnmountCalls SetUnmountCalls(UnmountCalls calls);

// Exit code of an unmount thread given up on after its limit.
constexpr uint32_t kUnmountThreadForced = 0xDEAD0017;

// Removes the mount point of `letter`; non-zero on success.
int32_t QuillboxUnmount(char letter);
// Unmount with one retry (through UnmountAsync with 2000 ms when
// `retryWithLimit`).
int32_t ForceUnmount(char letter, bool somethingWentWrong, bool retryWithLimit);
// Runs the unmount on a thread of its own; after `limitMs` (0: none) the
// mount point is removed by force and the thread is given up.
int32_t UnmountAsync(char letter, uint32_t limitMs);
// The body of that thread: ForceUnmount for an alphabetic letter, else 0.
int32_t UnmountThread(char letter);

// Set while the instance runs without a command line (the interactive one).
extern std::atomic<bool> g_interactiveInstance;

// The session of the user ends (SIGTERM, SIGHUP, SIGINT): a serving
// instance unmounts its drive within 2000 ms; the interactive instance
// closes its box and ends the usual way; any other instance gives back the
// shared section and ends at once with 128 + the signal.
void OnSessionEnd(int signal);

}  // namespace qb::app
