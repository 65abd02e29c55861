#include "platform/registry/hive_store.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <vector>

#include "diag/trace.h"
#include "platform/registry/hive_lock.h"
#include "platform/system/paths.h"

namespace qb::reg {
namespace {

// A hive larger than this is not a settings file we wrote.
constexpr off_t kMaxHiveBytes = 16 << 20;

struct HiveState {
  std::mutex mutex;  // guards every field below; taken before the lock file

  std::filesystem::path path;  // the file the fields below describe
  HiveKey root;
  bool loaded = false;    // root reflects the file as last seen
  bool exists = false;    // the file existed when last seen
  bool unusable = false;  // the file cannot be read nor moved aside: no writes
  struct stat seen {};    // the file as last seen (device, inode, size, time)
  int heldFd = -1;        // the loaded file, kept open so its inode is not reused
  bool hadBadLines = false;  // the loaded file has lines that were skipped: copy it before a rewrite
};

HiveState& StateOf(Hive hive) {
  static HiveState states[2];
  return states[hive == Hive::kCurrentUser ? 0 : 1];
}

bool SameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
         a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

void Forget(HiveState& s) {
  if (s.heldFd >= 0) close(s.heldFd);
  s.heldFd = -1;
  s.root = HiveKey();
  s.loaded = s.exists = s.unusable = s.hadBadLines = false;
  s.seen = {};
}

// Reports wait until the hive's mutex is released: the trace log may read
// the registry itself.
thread_local std::vector<std::string> t_reports;

void Report(const std::string& line) { t_reports.push_back(line); }

void FlushReports() {
  std::vector<std::string> reports;
  reports.swap(t_reports);
  for (const std::string& line : reports) {
    fprintf(stderr, "quillbox: %s\n", line.c_str());
    Trace("Q60@HiveStore: ", "%s", line.c_str());
  }
}

// "<hive>.<what>-YYYYMMDD-HHMMSS", with "-2", "-3"... when taken.
std::string AsideName(const std::filesystem::path& path, const char* what) {
  const time_t now = time(nullptr);
  struct tm local {};
  localtime_r(&now, &local);
  char stamp[32];
  strftime(stamp, sizeof stamp, "%Y%m%d-%H%M%S", &local);
  std::string base = path.string() + "." + what + "-" + stamp;
  std::string name = base;
  std::error_code ec;
  for (int n = 2; std::filesystem::exists(name, ec) && n < 1000; ++n) name = base + "-" + std::to_string(n);
  return name;
}

// Called with the hive's lock file held, so no other process renames or
// replaces the file meanwhile.
bool MoveAside(const std::filesystem::path& path, const ParseError& error) {
  const std::string target = AsideName(path, "corrupt");
  const std::string what = Format("the registry file %s cannot be read (line %d: %s)", path.c_str(),
                                  error.line, error.reason.c_str());
  if (rename(path.c_str(), target.c_str()) == 0) {
    Report(what + "; it was moved to " + target + " and defaults are used");
    return true;
  }
  Report(what + " and cannot be moved aside (" + strerror(errno) + "); defaults are used and the file is kept");
  return false;
}

bool ReadAll(int fd, off_t size, std::string* text) {
  text->resize(static_cast<size_t>(size));
  size_t done = 0;
  while (done < text->size()) {
    const ssize_t n = read(fd, text->data() + done, text->size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  text->resize(done);
  return true;
}

DWORD Refresh(HiveState& s, Hive hive, bool locked);

// Reads the file at s.path into s; a file that does not parse is moved aside.
DWORD Load(HiveState& s, Hive hive, bool locked) {
  const int fd = open(s.path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat st {};
  if (fd < 0 || fstat(fd, &st) != 0) {
    const int error = errno;
    if (fd >= 0) close(fd);
    if (error == ENOENT) {
      Forget(s);
      s.loaded = true;
      return ERROR_SUCCESS;
    }
    Report(Format("the registry file %s cannot be opened (%s); defaults are used", s.path.c_str(), strerror(error)));
    Forget(s);
    s.loaded = s.exists = s.unusable = true;
    stat(s.path.c_str(), &s.seen);  // report a file once, not on every read
    return ERROR_SUCCESS;
  }
  std::string text;
  HiveKey tree;
  ParseError error;
  std::vector<ParseError> skipped;
  bool ok = st.st_size <= kMaxHiveBytes;
  if (!ok) error = {1, "the file is larger than 16 MiB"};
  if (ok) ok = ReadAll(fd, st.st_size, &text) && ParseHive(text, HiveName(hive), &tree, &error, &skipped);
  if (ok) {
    for (const ParseError& bad : skipped)
      Report(Format("the registry file %s: line %d skipped (%s); the other lines are used", s.path.c_str(),
                    bad.line, bad.reason.c_str()));
    Forget(s);
    s.root = std::move(tree);
    s.loaded = s.exists = true;
    s.hadBadLines = !skipped.empty();
    s.seen = st;
    s.heldFd = fd;
    return ERROR_SUCCESS;
  }
  close(fd);
  if (!locked) {
    HiveLock lock(s.path);
    if (lock.Result() == ERROR_SUCCESS) return Refresh(s, hive, true);  // it may have been replaced meanwhile
  }
  const bool moved = locked && MoveAside(s.path, error);
  if (!locked) {
    Report(Format("the registry file %s cannot be read (line %d: %s) and cannot be locked; defaults are used",
                  s.path.c_str(), error.line, error.reason.c_str()));
  }
  Forget(s);
  s.loaded = true;
  if (!moved) {
    s.exists = s.unusable = true;
    s.seen = st;  // report a file once, not on every read
  }
  return ERROR_SUCCESS;
}

DWORD Refresh(HiveState& s, Hive hive, bool locked) {
  const std::filesystem::path path = HivePath(hive);
  if (path != s.path) {
    Forget(s);
    s.path = path;
  }
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) {
    if (errno == ENOENT && s.loaded && !s.exists) return ERROR_SUCCESS;
    if (errno == ENOENT) {
      Forget(s);
      s.loaded = true;
      return ERROR_SUCCESS;
    }
  } else if (s.loaded && s.exists && SameFile(s.seen, st)) {
    return ERROR_SUCCESS;
  }
  return Load(s, hive, locked);
}

std::atomic<unsigned> g_tempCounter{0};

// A rewrite drops the lines that were skipped: the file as the user left it
// is kept beside it first, and without that copy it is not rewritten. The
// lock file is held.
DWORD KeepCopyOfBadLines(HiveState& s) {
  if (!s.hadBadLines) return ERROR_SUCCESS;
  const std::string copy = AsideName(s.path, "before");
  std::error_code ec;
  if (!std::filesystem::copy_file(s.path, copy, ec)) {
    Report(Format("the registry file %s has skipped lines and cannot be copied (%s); it is not rewritten",
                  s.path.c_str(), ec.message().c_str()));
    return ERROR_CANTWRITE;
  }
  Report(Format("the registry file %s is rewritten without its skipped lines; it was kept as %s", s.path.c_str(),
                copy.c_str()));
  s.hadBadLines = false;
  return ERROR_SUCCESS;
}

// Replaces the hive file with the text of s.root; the lock file is held.
DWORD Write(HiveState& s, Hive hive) {
  if (const DWORD kept = KeepCopyOfBadLines(s); kept != ERROR_SUCCESS) return kept;
  const std::string text = SerializeHive(s.root, HiveName(hive));
  const std::string temp = Format("%s.tmp.%d.%u", s.path.c_str(), static_cast<int>(getpid()), g_tempCounter++);
  const mode_t mode = s.exists && s.heldFd >= 0 ? (s.seen.st_mode & 07777) : (hive == Hive::kCurrentUser ? 0600 : 0644);
  const int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  if (fd < 0) return HiveErrnoToWin32(errno);
  size_t done = 0;
  int error = 0;
  while (done < text.size() && !error) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno != EINTR) error = errno;
    if (n > 0) done += static_cast<size_t>(n);
  }
  struct stat st {};
  if (!error && (fchmod(fd, mode) != 0 || fsync(fd) != 0 || fstat(fd, &st) != 0)) error = errno;
  if (!error && rename(temp.c_str(), s.path.c_str()) != 0) error = errno;
  if (error) {
    close(fd);
    unlink(temp.c_str());
    return HiveErrnoToWin32(error);
  }
  if (s.heldFd >= 0) close(s.heldFd);
  s.heldFd = fd;
  s.seen = st;
  s.loaded = s.exists = true;
  s.unusable = false;
  return ERROR_SUCCESS;
}

DWORD ChangeLocked(HiveState& s, Hive hive, const std::function<DWORD(HiveKey& root, bool* changed)>& change) {
  HiveLock lock(HivePath(hive));
  if (lock.Result() != ERROR_SUCCESS) return lock.Result();
  Refresh(s, hive, true);
  if (s.unusable) return ERROR_BADDB;
  bool changed = false;
  const DWORD rc = change(s.root, &changed);
  if (rc != ERROR_SUCCESS || !changed) return rc;
  const DWORD written = Write(s, hive);
  if (written != ERROR_SUCCESS) {
    Report(Format("the registry file %s cannot be written: error %u", s.path.c_str(), written));
    Forget(s);  // the tree holds a change the file lacks: read the file again next time
  }
  return written;
}

}  // namespace

std::filesystem::path HivePath(Hive hive) {
  return hive == Hive::kCurrentUser ? sys::UserHivePath() : sys::MachineHivePath();
}

DWORD ReadHive(Hive hive, const std::function<DWORD(const HiveKey& root)>& read) {
  HiveState& s = StateOf(hive);
  DWORD rc;
  {
    std::lock_guard<std::mutex> guard(s.mutex);
    Refresh(s, hive, false);
    rc = read(s.root);
  }
  FlushReports();
  return rc;
}

DWORD ChangeHive(Hive hive, const std::function<DWORD(HiveKey& root, bool* changed)>& change) {
  HiveState& s = StateOf(hive);
  DWORD rc;
  {
    std::lock_guard<std::mutex> guard(s.mutex);
    rc = ChangeLocked(s, hive, change);
  }
  FlushReports();
  return rc;
}

}  // namespace qb::reg
