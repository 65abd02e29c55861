#pragma once
// Starting another program with chosen descriptors inherited, and waiting for
// it. An exit code is 8 bits here: codes travel as their low byte and are
// read back as a signed byte (every code that crosses between instances lies
// in -128..127).
#include <sys/types.h>

#include <string>
#include <vector>

namespace qb::sys {

// A started child: its process id and a pidfd to wait on. Move-only.
class ChildProcess {
 public:
  ChildProcess() = default;
  ChildProcess(pid_t pid, int pidfd) : pid_(pid), pidfd_(pidfd) {}
  ~ChildProcess();
  ChildProcess(ChildProcess&& other) noexcept;
  ChildProcess& operator=(ChildProcess&& other) noexcept;
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  bool Valid() const { return pid_ > 0; }
  pid_t Pid() const { return pid_; }
  // Descriptor that becomes readable when the child ends (for poll).
  int WaitFd() const { return pidfd_; }
  // Waits up to `ms` (negative: no limit). True when the child has ended;
  // then `exitCode` holds its exit code read as a signed byte, and `killed`
  // tells whether a signal ended it (then the code cannot be read).
  bool Wait(int ms, int* exitCode, bool* killed = nullptr);
  // Forgets the child without waiting (it is reaped by whoever waits next;
  // for a detached start the caller does not care).
  void Release();

 private:
  pid_t pid_ = -1;
  int pidfd_ = -1;
  bool reaped_ = false;
  int code_ = 0;
  bool killed_ = false;
};

// Starts `argv[0]` (a path) with `argv` and the descriptors in `inherit`
// (kept at their numbers, even when they are close-on-exec here). Standard
// input, output and error are inherited, or with `quietStdio` connected to
// /dev/null (an instance that outlives its starter must not hold the
// starter's pipes open). False with errno set on failure.
bool SpawnProcess(const std::vector<std::string>& argv, const std::vector<int>& inherit,
                  ChildProcess* child, bool quietStdio = false);

// Splits a command line written with blanks and double quotes into
// arguments ("a b" is one argument; quotes are removed).
std::vector<std::string> SplitCommandLine(const std::string& line);

// The low byte of a program code as the exit status, and back.
inline int ExitStatusOf(int code) { return code & 0xFF; }
inline int CodeOfExitStatus(int status) { return static_cast<signed char>(status & 0xFF); }

}  // namespace qb::sys
