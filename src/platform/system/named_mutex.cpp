#include "platform/system/named_mutex.h"

#include <fcntl.h>

#include <cerrno>
#include <ctime>
#include <filesystem>

namespace qb::sys {

std::string NamedMutexPosixName(const std::string& name) {
  std::string out = "/";
  for (char c : name) {
    if (c != '/') out += c;
  }
  return out;
}

std::unique_ptr<NamedMutex> NamedMutex::Create(const std::string& name) {
  const std::string posix = NamedMutexPosixName(name);
  // A name that exists already belongs to a run that is gone (the creator is
  // the first instance), and its count may be stuck at 0: start afresh.
  sem_unlink(posix.c_str());
  sem_t* sem = sem_open(posix.c_str(), O_CREAT | O_EXCL, 0600, 1);
  if (sem == SEM_FAILED) return nullptr;
  return std::unique_ptr<NamedMutex>(new NamedMutex(posix, sem));
}

std::unique_ptr<NamedMutex> NamedMutex::Open(const std::string& name) {
  const std::string posix = NamedMutexPosixName(name);
  sem_t* sem = sem_open(posix.c_str(), 0);
  if (sem == SEM_FAILED) return nullptr;
  return std::unique_ptr<NamedMutex>(new NamedMutex(posix, sem));
}

bool NamedMutex::Remove(const std::string& name) {
  return sem_unlink(NamedMutexPosixName(name).c_str()) == 0;
}

int NamedMutex::RemoveAllWithPrefix(const std::string& prefix) {
  // Linux keeps named semaphores as /dev/shm/sem.<name>.
  const std::string wanted = "sem." + NamedMutexPosixName(prefix).substr(1);
  std::error_code ec;
  int removed = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/dev/shm", ec)) {
    const std::string file = entry.path().filename().string();
    if (file.rfind(wanted, 0) == 0 && Remove(file.substr(4))) ++removed;
  }
  return removed;
}

NamedMutex::~NamedMutex() { sem_close(sem_); }

NamedMutex::LockResult NamedMutex::Lock(uint32_t timeoutMs) {
  struct timespec deadline {};
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += timeoutMs / 1000;
  deadline.tv_nsec += static_cast<long>(timeoutMs % 1000) * 1'000'000;
  if (deadline.tv_nsec >= 1'000'000'000) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= 1'000'000'000;
  }
  for (;;) {
    if (sem_clockwait(sem_, CLOCK_MONOTONIC, &deadline) == 0) return LockResult::kAcquired;
    if (errno == EINTR) continue;
    return errno == ETIMEDOUT ? LockResult::kTimeout : LockResult::kError;
  }
}

void NamedMutex::Unlock() {
  // An unbalanced Unlock must not let two holders in at once.
  int value = 0;
  if (sem_getvalue(sem_, &value) == 0 && value > 0) return;
  sem_post(sem_);
}

}  // namespace qb::sys
