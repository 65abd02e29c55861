#include "platform/registry/hive_lock.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <chrono>
#include <thread>

namespace qb::reg {
namespace {

// A writer holds the lock for one small file write; waiting longer than
// this means a process hangs while holding it.
constexpr auto kLockLimit = std::chrono::seconds(10);

}  // namespace

DWORD HiveErrnoToWin32(int error) {
  switch (error) {
    case ENOENT: return ERROR_PATH_NOT_FOUND;
    case EACCES:
    case EPERM:
    case EROFS: return ERROR_ACCESS_DENIED;
    case ENOSPC:
    case EDQUOT: return ERROR_DISK_FULL;
    default: return ERROR_CANTWRITE;
  }
}

HiveLock::HiveLock(const std::filesystem::path& hivePath) {
  std::error_code ec;
  std::filesystem::create_directories(hivePath.parent_path(), ec);
  const std::string lockPath = hivePath.string() + ".lock";
  fd_ = open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd_ < 0) {
    result_ = HiveErrnoToWin32(errno);
    return;
  }
  const auto deadline = std::chrono::steady_clock::now() + kLockLimit;
  auto pause = std::chrono::microseconds(200);
  while (flock(fd_, LOCK_EX | LOCK_NB) != 0) {
    if ((errno != EWOULDBLOCK && errno != EINTR) || std::chrono::steady_clock::now() >= deadline) {
      result_ = errno == EWOULDBLOCK ? ERROR_TIMEOUT : HiveErrnoToWin32(errno);
      close(fd_);
      fd_ = -1;
      return;
    }
    std::this_thread::sleep_for(pause);  // poll the holder's release within the limit
    pause = std::min(pause * 2, std::chrono::microseconds(5000));
  }
}

HiveLock::~HiveLock() {
  if (fd_ >= 0) close(fd_);  // closing releases the flock
}

}  // namespace qb::reg
