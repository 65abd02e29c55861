#include "platform/system/child_handles.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>

namespace qb::sys {

int CreateEventFd() { return eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK); }

bool SignalEventFd(int fd) {
  if (fd < 0) return false;
  uint64_t one = 1;
  ssize_t n;
  do {
    n = write(fd, &one, sizeof one);
  } while (n < 0 && errno == EINTR);
  return n == static_cast<ssize_t>(sizeof one);
}

bool WaitEventFd(int fd, int ms) {
  if (fd < 0) return false;
  struct pollfd p {fd, POLLIN, 0};
  int r;
  do {
    r = poll(&p, 1, ms < 0 ? -1 : ms);
  } while (r < 0 && errno == EINTR);
  if (r <= 0 || !(p.revents & POLLIN)) return false;
  uint64_t value = 0;
  // Non-blocking: another waiter may have taken the signal in between.
  return read(fd, &value, sizeof value) == static_cast<ssize_t>(sizeof value);
}

bool IsEventFd(int fd) {
  if (fd < 0 || fcntl(fd, F_GETFD) < 0) return false;
  char link[64];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  char target[PATH_MAX];
  ssize_t n = readlink(link, target, sizeof target - 1);
  if (n <= 0) return false;
  target[n] = 0;
  return std::string(target) == "anon_inode:[eventfd]";
}

int DuplicateEventFrom(pid_t pid, int fd) {
  if (fd < 0) return -1;
  if (IsEventFd(fd)) return fcntl(fd, F_DUPFD_CLOEXEC, 0);
  if (pid <= 0) return -1;
#if defined(SYS_pidfd_open) && defined(SYS_pidfd_getfd)
  int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  if (pidfd < 0) return -1;
  int copy = static_cast<int>(syscall(SYS_pidfd_getfd, pidfd, fd, 0));
  close(pidfd);
  if (copy >= 0 && !IsEventFd(copy)) {
    close(copy);
    return -1;
  }
  return copy;  // pidfd_getfd sets close-on-exec
#else
  return -1;
#endif
}

bool CreateProgressPipe(ProgressPipe* p) {
  int fds[2];
  if (!p || pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) return false;
  p->readFd = fds[0];
  p->writeFd = fds[1];
  return true;
}

bool WriteProgressText(int fd, const std::string& text) {
  if (fd < 0) return false;
  std::string line = text + "\n";
  ssize_t n = write(fd, line.data(), line.size());
  return n == static_cast<ssize_t>(line.size());
}

std::string ReadProgressText(int fd, int ms) {
  std::string all;
  struct pollfd p {fd, POLLIN, 0};
  while (fd >= 0 && poll(&p, 1, all.empty() ? ms : 0) > 0 && (p.revents & POLLIN)) {
    char buffer[1024];
    ssize_t n = read(fd, buffer, sizeof buffer);
    if (n <= 0) break;
    all.append(buffer, static_cast<size_t>(n));
  }
  size_t end = all.rfind('\n');
  if (end == std::string::npos) return {};
  size_t begin = all.rfind('\n', end == 0 ? 0 : end - 1);
  begin = (begin == std::string::npos || begin >= end) ? 0 : begin + 1;
  return all.substr(begin, end - begin);
}

void CloseProgressPipe(ProgressPipe* p) {
  if (!p) return;
  if (p->readFd >= 0) close(p->readFd);
  if (p->writeFd >= 0) close(p->writeFd);
  p->readFd = p->writeFd = -1;
}

}  // namespace qb::sys
