#pragma once
// Mounting test drives for real and driving them from other processes, with
// a limit on every wait. A drive is always removed again, also when a test
// fails (the guards' destructors use the forced removal).
#include <sys/types.h>

#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "mem_fs.h"
#include "platform/system/process_spawn.h"

namespace qbtest {

constexpr int kCommandLimitMs = 20000;
constexpr int kMountLimitMs = 10000;

// Runs `command` with /bin/sh in another process; its output (stdout and
// stderr) goes to `output`. The exit code, or -1 when the limit passed (the
// command is then killed).
int RunShell(const std::string& command, std::string* output = nullptr,
             int limitMs = kCommandLimitMs);
std::string Quote(const std::string& text);

// Polls `condition` every few milliseconds until it holds or `limitMs` pass.
bool WaitUntil(const std::function<bool()>& condition, int limitMs);

bool IsMounted(char letter);
std::string MountPath(char letter);

// A MemFs served by DokanMain on a thread of this process.
class InProcessDrive {
 public:
  InProcessDrive(char letter, bool singleThread);
  ~InProcessDrive();  // removes the drive (forced when it does not go)
  InProcessDrive(const InProcessDrive&) = delete;
  InProcessDrive& operator=(const InProcessDrive&) = delete;

  bool Start();  // true once mounted
  // Plain removal; the result of DokanMain, or 1000 when it did not return.
  int Stop(int limitMs = kMountLimitMs);
  MemFs& Fs() { return fs_; }
  std::string Path() const { return MountPath(letter_); }
  char Letter() const { return letter_; }

 private:
  char letter_;
  bool singleThread_;
  std::string mountPoint_;
  MemFs fs_;
  std::future<int> result_;
  std::thread thread_;
  bool stopped_ = true;
};

// The test server program, serving a MemFs on a letter in its own process.
class ServerProcess {
 public:
  ServerProcess(char letter, const std::string& callsFile, bool singleThread = false);
  ~ServerProcess();  // forced removal and SIGKILL if still there
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  bool Start();  // true once mounted
  pid_t Pid() const { return child_.Pid(); }
  // Waits for the exit; true with the exit code when it ended in time.
  bool WaitExit(int limitMs, int* code, bool* killed = nullptr);
  std::vector<FsCall> Calls() const;

 private:
  char letter_;
  std::string callsFile_;
  bool singleThread_;
  qb::sys::ChildProcess child_;
  bool exited_ = false;
};

// The calls with `path`, in order.
std::vector<FsCall> CallsFor(const std::vector<FsCall>& calls, const std::string& path);
// "op" names of calls, joined with blanks ("ZwCreateFile DeleteFile ...").
std::string OpNames(const std::vector<FsCall>& calls);
// True when `want` (op names) occurs in `calls` in this order, not
// necessarily next to each other.
bool HasInOrder(const std::vector<FsCall>& calls, const std::vector<std::string>& want);
// Value of "key=" in a call's detail, or "".
std::string DetailValue(const FsCall& call, const std::string& key);

}  // namespace qbtest
