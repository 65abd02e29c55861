#include "platform/dokan/letter_state.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "diag/trace.h"
#include "platform/dokan/dokan_linux.h"
#include "platform/system/paths.h"
#include "platform/system/process_spawn.h"

namespace qb::dokan {
namespace {

constexpr const char* kTag = "K3@LetterState: ";
constexpr const char* kConnections = "/sys/fs/fuse/connections";
constexpr int kHelperLimitMs = 2000;

// The whole lock file, for the claim and for the test.
struct flock WholeFile(short type) {
  struct flock lock{};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  return lock;
}

// Only asks: a test that took the lock, even for a moment, could refuse
// the claim of a server mounting the letter at that moment.
bool IsHeld(char letter) {
  const int fd = open(LockFileOf(letter).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  struct flock probe = WholeFile(F_WRLCK);
  const bool held = fcntl(fd, F_OFD_GETLK, &probe) == 0 && probe.l_type != F_UNLCK;
  close(fd);
  return held;
}

std::optional<LetterRecord> ReadRecord(char letter) {
  FILE* f = fopen(LockFileOf(letter).c_str(), "re");
  if (!f) return std::nullopt;
  LetterRecord r;
  const int n = fscanf(f, "pid=%d dev=%u:%u options=0x%x", &r.pid, &r.major, &r.minor, &r.options);
  fclose(f);
  if (n < 1) return std::nullopt;
  return r;
}

bool IsEmptyDirectory(const std::filesystem::path& p) {
  std::error_code ec;
  return std::filesystem::is_directory(p, ec) && std::filesystem::is_empty(p, ec) && !ec;
}

std::string FusermountPath() {
  for (const char* p : {"/usr/bin/fusermount3", "/bin/fusermount3", "/usr/local/bin/fusermount3"})
    if (access(p, X_OK) == 0) return p;
  return "fusermount3";
}

// Unmount as an unprivileged user goes through the set-user-id helper.
bool RunFusermount(const std::filesystem::path& mp, bool lazy) {
  std::vector<std::string> argv{FusermountPath(), "-u", "-q"};
  if (lazy) argv.push_back("-z");
  argv.push_back(mp.string());
  qb::sys::ChildProcess child;
  if (!qb::sys::SpawnProcess(argv, {}, &child)) return false;
  int code = -1;
  bool killed = false;
  if (!child.Wait(kHelperLimitMs, &code, &killed)) {
    kill(child.Pid(), SIGKILL);
    child.Wait(kHelperLimitMs, &code, &killed);
    return false;
  }
  return !killed && code == 0;
}

bool Unmount(const std::filesystem::path& mp, bool lazy) {
  if (geteuid() != 0) return RunFusermount(mp, lazy);
  const int flags = UMOUNT_NOFOLLOW | (lazy ? MNT_DETACH : 0);
  if (umount2(mp.c_str(), flags) == 0) return true;
  Trace(kTag, "umount2(\"%s\", 0x%x) failed, errno=%d", mp.c_str(), flags, errno);
  return false;
}

bool EnsureControlFs() {
  if (IsMountedAs(kConnections, "fusectl")) return true;
  if (geteuid() != 0) return false;
  if (mount("fusectl", kConnections, "fusectl", 0, nullptr) == 0) return true;
  Trace(kTag, "mount fusectl failed, errno=%d", errno);
  return false;
}

bool OursMounted(const LetterInfo& info) {
  return info.mount && (info.state == LetterState::kOursLive || info.state == LetterState::kOursStale);
}

}  // namespace

std::filesystem::path LockFileOf(char letter) {
  return qb::sys::DrivesRoot() / (std::string(".") + letter + ".lock");
}

LetterInfo InspectLetter(char letter) {
  LetterInfo info;
  if (letter == 'C') {
    info.state = LetterState::kSystem;
    return info;
  }
  const std::filesystem::path mp = MountPointOf(letter);
  info.mount = FindMount(mp);
  info.record = ReadRecord(letter);
  const bool held = IsHeld(letter);
  if (info.mount) {
    const bool ours = info.record && info.record->major == info.mount->major &&
                      info.record->minor == info.mount->minor;
    info.state = !ours ? LetterState::kForeignMount
                       : held ? LetterState::kOursLive : LetterState::kOursStale;
    return info;
  }
  struct stat st{};
  if (lstat(mp.c_str(), &st) != 0) {
    info.state = held ? LetterState::kOursLive : LetterState::kEmpty;
    return info;
  }
  if (held)
    info.state = LetterState::kOursLive;  // mounting or unmounting right now
  else if (info.record && IsEmptyDirectory(mp))
    info.state = LetterState::kOursStale;
  else
    info.state = LetterState::kForeign;
  return info;
}

std::optional<LetterClaim> LetterClaim::Take(char letter) {
  std::error_code ec;
  std::filesystem::create_directories(qb::sys::DrivesRoot(), ec);
  const int fd = open(LockFileOf(letter).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return std::nullopt;
  // An open-file-description lock: held by the open, not the thread,
  // dropped by the kernel with the last descriptor, and testable without
  // taking it.
  struct flock claim = WholeFile(F_WRLCK);
  if (fcntl(fd, F_OFD_SETLK, &claim) != 0) {
    close(fd);
    return std::nullopt;
  }
  return LetterClaim(fd);
}

LetterClaim::LetterClaim(LetterClaim&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }

LetterClaim::~LetterClaim() {
  if (fd_ < 0) return;
  ClearRecord();
  close(fd_);
}

bool LetterClaim::WriteRecord(const LetterRecord& r) {
  char text[128];
  const int n = snprintf(text, sizeof text, "pid=%d dev=%u:%u options=0x%x\n", r.pid, r.major,
                         r.minor, r.options);
  if (ftruncate(fd_, 0) != 0) return false;
  return pwrite(fd_, text, static_cast<size_t>(n), 0) == n;
}

void LetterClaim::ClearRecord() {
  if (ftruncate(fd_, 0) != 0) Trace(kTag, "ftruncate failed, errno=%d", errno);
}

void CleanStale(char letter, const LetterInfo& info) {
  if (info.state != LetterState::kOursStale) return;
  const std::filesystem::path mp = MountPointOf(letter);
  Trace(kTag, "Cleaning stale drive '%c'", letter);
  if (info.mount) {
    AbortConnection(info.mount->minor);
    Unmount(mp, true);
  }
  std::error_code ec;
  if (IsEmptyDirectory(mp)) std::filesystem::remove(mp, ec);
}

bool AbortConnection(unsigned connection) {
  if (!EnsureControlFs()) return false;
  const std::string file = std::string(kConnections) + "/" + std::to_string(connection) + "/abort";
  const int fd = open(file.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool ok = write(fd, "1", 1) == 1;
  close(fd);
  Trace(kTag, "Aborted connection %u: %d", connection, ok ? 1 : 0);
  return ok;
}

bool UnmountLetter(char letter) {
  const LetterInfo info = InspectLetter(letter);
  if (!OursMounted(info)) return false;
  const std::filesystem::path mp = MountPointOf(letter);
  if (Unmount(mp, false)) return true;
  // Busy: Windows removes the drive all the same; open handles end.
  AbortConnection(info.mount->minor);
  return Unmount(mp, true) || !FindMount(mp);
}

bool DetachLetter(char letter, unsigned* connection) {
  const LetterInfo info = InspectLetter(letter);
  if (!OursMounted(info)) return false;
  *connection = info.mount->minor;
  return Unmount(MountPointOf(letter), true);
}

bool ForceUnmountLetter(char letter) {
  const LetterInfo info = InspectLetter(letter);
  if (info.state == LetterState::kOursStale) {
    CleanStale(letter, info);
    return !FindMount(MountPointOf(letter));
  }
  if (!OursMounted(info)) return !info.mount;
  AbortConnection(info.mount->minor);
  Unmount(MountPointOf(letter), true);
  return !FindMount(MountPointOf(letter));
}

}  // namespace qb::dokan
