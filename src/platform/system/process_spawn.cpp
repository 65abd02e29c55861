#include "platform/system/process_spawn.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

extern char** environ;

namespace qb::sys {
namespace {

int PidfdOpen(pid_t pid) {
#ifdef SYS_pidfd_open
  return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
#else
  (void)pid;
  return -1;
#endif
}

}  // namespace

ChildProcess::~ChildProcess() {
  if (pidfd_ >= 0) close(pidfd_);
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept { *this = std::move(other); }

ChildProcess& ChildProcess::operator=(ChildProcess&& other) noexcept {
  if (this != &other) {
    if (pidfd_ >= 0) close(pidfd_);
    pid_ = other.pid_;
    pidfd_ = other.pidfd_;
    reaped_ = other.reaped_;
    code_ = other.code_;
    killed_ = other.killed_;
    other.pid_ = -1;
    other.pidfd_ = -1;
  }
  return *this;
}

bool ChildProcess::Wait(int ms, int* exitCode, bool* killed) {
  if (pid_ <= 0) return false;
  if (!reaped_) {
    if (pidfd_ >= 0) {
      struct pollfd p {pidfd_, POLLIN, 0};
      int r;
      do {
        r = poll(&p, 1, ms < 0 ? -1 : ms);
      } while (r < 0 && errno == EINTR);
      if (r <= 0) return false;
    }
    // Without a pidfd, poll waitpid with a bounded number of 10 ms steps.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms < 0 ? 0 : ms);
    int status = 0;
    for (;;) {
      pid_t r = waitpid(pid_, &status, pidfd_ >= 0 ? 0 : WNOHANG);
      if (r == pid_) break;
      if (r < 0 && errno == EINTR) continue;
      if (r < 0) return false;
      if (ms >= 0 && std::chrono::steady_clock::now() >= deadline) return false;
      poll(nullptr, 0, 10);
    }
    reaped_ = true;
    killed_ = WIFSIGNALED(status);
    code_ = WIFEXITED(status) ? CodeOfExitStatus(WEXITSTATUS(status)) : 0;
  }
  if (exitCode) *exitCode = code_;
  if (killed) *killed = killed_;
  return true;
}

void ChildProcess::Release() {
  if (pidfd_ >= 0) close(pidfd_);
  pidfd_ = -1;
  pid_ = -1;
}

bool SpawnProcess(const std::vector<std::string>& argv, const std::vector<int>& inherit,
                  ChildProcess* child, bool quietStdio) {
  if (argv.empty() || !child) {
    errno = EINVAL;
    return false;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  // dup2 onto the same number clears close-on-exec in the child only, so no
  // other thread of ours can leak the descriptor into a program it starts.
  if (quietStdio) {
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  }
  for (int fd : inherit)
    if (fd >= 0) posix_spawn_file_actions_adddup2(&actions, fd, fd);
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = -1;
  int rc = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) {
    errno = rc;
    return false;
  }
  *child = ChildProcess(pid, PidfdOpen(pid));
  return true;
}

std::vector<std::string> SplitCommandLine(const std::string& line) {
  std::vector<std::string> out;
  std::string current;
  bool quoted = false, any = false;
  for (char c : line) {
    if (c == '"') {
      quoted = !quoted;
      any = true;
    } else if ((c == ' ' || c == '\t') && !quoted) {
      if (any) out.push_back(current);
      current.clear();
      any = false;
    } else {
      current += c;
      any = true;
    }
  }
  if (any) out.push_back(current);
  return out;
}

}  // namespace qb::sys
