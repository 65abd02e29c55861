#include "platform/system/shared_section.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <thread>

#include "platform/system/paths.h"

namespace qb::sys {
namespace {

// Every wait has a limit: the guard is held only for a few system calls, so
// a holder that keeps it this long is gone or stuck and we go on without it.
constexpr auto kGuardLimit = std::chrono::milliseconds(5000);

bool LockWithLimit(int fd, int operation) {
  auto deadline = std::chrono::steady_clock::now() + kGuardLimit;
  for (;;) {
    if (flock(fd, operation | LOCK_NB) == 0) return true;
    if (errno != EWOULDBLOCK && errno != EINTR) return false;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

// The guard serialises "am I alone?" against other openers and closers, so
// that the lifetime lock can be converted between shared and exclusive
// without another process slipping in between.
class GuardLock {
 public:
  explicit GuardLock(const std::string& path) {
    fd_ = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd_ >= 0 && !LockWithLimit(fd_, LOCK_EX)) {
      close(fd_);
      fd_ = -1;
    }
  }
  ~GuardLock() {
    if (fd_ >= 0) close(fd_);  // closing releases the lock
  }
  bool Held() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

}  // namespace

std::string SharedSection::LockFilePath(const std::string& name) {
  std::string base = name;
  while (!base.empty() && base.front() == '/') base.erase(0, 1);
  // Beside the drives root: the user's runtime folder (or QUILLBOX_HOME),
  // which goes with the session.
  std::filesystem::path folder = DrivesRoot().parent_path();
  std::error_code ec;
  std::filesystem::create_directories(folder, ec);
  return (folder / (base + ".lock")).string();
}

SharedSection::~SharedSection() { Close(); }

bool SharedSection::Fail(const char* step) {
  error_ = std::string(step) + ": " + std::strerror(errno);
  if (lockFd_ >= 0) close(lockFd_);
  lockFd_ = -1;
  return false;
}

bool SharedSection::Open(const std::string& name, size_t size) {
  Close();
  error_.clear();
  std::string lockPath = LockFilePath(name);
  GuardLock guard(lockPath + ".guard");
  if (!guard.Held()) return Fail("guard lock");

  lockFd_ = open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (lockFd_ < 0) return Fail("lock file");
  // Exclusive means nobody holds the section: whatever memory is left under
  // the name belongs to instances that ended, so start from zero.
  new_ = flock(lockFd_, LOCK_EX | LOCK_NB) == 0;
  if (!new_ && flock(lockFd_, LOCK_SH | LOCK_NB) != 0) return Fail("lifetime lock");

  int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) return Fail("shm_open");
  struct stat st {};
  bool sized = fstat(fd, &st) == 0 && static_cast<size_t>(st.st_size) == size;
  if (new_ || !sized) {
    // Truncating to 0 first drops any old content, so a new section reads
    // as zero throughout.
    if ((new_ && ftruncate(fd, 0) != 0) || ftruncate(fd, static_cast<off_t>(size)) != 0) {
      int saved = errno;
      close(fd);
      errno = saved;
      return Fail("ftruncate");
    }
  }
  void* view = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  int saved = errno;
  close(fd);  // the mapping keeps the memory
  errno = saved;
  if (view == MAP_FAILED) return Fail("mmap");
  if (new_ && flock(lockFd_, LOCK_SH) != 0) {
    munmap(view, size);
    return Fail("lifetime lock");
  }
  name_ = name;
  data_ = view;
  size_ = size;
  return true;
}

void SharedSection::Close() {
  if (data_) munmap(data_, size_);
  CloseKeepingView();
}

void SharedSection::CloseKeepingView() {
  data_ = nullptr;
  if (lockFd_ >= 0) {
    GuardLock guard(LockFilePath(name_) + ".guard");
    // The last holder removes the name; the content is not persistent.
    if (guard.Held() && flock(lockFd_, LOCK_EX | LOCK_NB) == 0) {
      shm_unlink(name_.c_str());
      // Openers open the lock file only under the guard, so no one can be
      // about to lock the file that goes here.
      unlink(LockFilePath(name_).c_str());
    }
    close(lockFd_);
    lockFd_ = -1;
  }
  size_ = 0;
  new_ = false;
  name_.clear();
}

}  // namespace qb::sys
