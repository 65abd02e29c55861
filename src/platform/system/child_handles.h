#pragma once
// Handles that one instance passes to a child it starts: an event (eventfd,
// auto-reset: a wait consumes the signal) and a pipe for progress text. The
// value on the child's command line is the descriptor number, valid in the
// child because the descriptor is inherited (see process_spawn.h).
#include <sys/types.h>

#include <cstdint>
#include <string>

namespace qb::sys {

// An unnamed auto-reset event, not signalled. -1 on failure. The descriptor
// is close-on-exec; SpawnProcess passes it on explicitly.
int CreateEventFd();
// Sets the event. False when the descriptor is not usable.
bool SignalEventFd(int fd);
// Waits up to `ms` milliseconds (negative: no limit) and consumes the signal.
// True when the event was set.
bool WaitEventFd(int fd, int ms);
// True when `fd` is an open eventfd of this process.
bool IsEventFd(int fd);

// Takes into this process a duplicate of descriptor `fd` of process `pid`:
// the inherited descriptor when this process has it open as an eventfd,
// else a copy fetched from that process (pidfd_getfd). -1 when neither works
// (for example when that process has ended).
int DuplicateEventFrom(pid_t pid, int fd);

// The progress-text pipe of a wait window: the reader keeps the last line.
struct ProgressPipe {
  int readFd = -1;
  int writeFd = -1;
};
bool CreateProgressPipe(ProgressPipe* pipe);
// Writes one line of text (a line feed is added).
bool WriteProgressText(int fd, const std::string& text);
// Reads what is there within `ms` milliseconds; returns the last complete
// line seen, or empty.
std::string ReadProgressText(int fd, int ms);
void CloseProgressPipe(ProgressPipe* pipe);

}  // namespace qb::sys
