// The items that opens hold. An open's object is its tree item, whatever
// happens to the name afterwards: the record is not refilled while an open
// holds it, and when its name goes (deleted, replaced by a rename) while it
// is held, its copy leaves the cache's name space, so that the next object
// under the name never shares or throws away the open's bytes. The copy is
// removed at the last close.
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <map>
#include <mutex>
#include <system_error>

#include "diag/trace.h"
#include "drive/write_side.h"
#include "platform/system/paths.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kTag = "M76@OpenItems: ";

// Items whose name went while open, with their copy ("" when they had
// none). Under g_detachedMutex; taken after the drive lock.
std::mutex g_detachedMutex;
std::map<const DirectoryItem*, std::string> g_detached;
uint64_t g_detachCounter = 0;

// Copies of removed open files live outside the cache, where no purge
// reaches them: <local data>/Quillbox/Open/<letter>/<pid>-<n>.
fs::path DetachFolder(const DriveState* state) {
  const char letter = state->cDriveLetter ? state->cDriveLetter : '_';
  return qb::sys::LocalAppDataDir() / "Quillbox" / "Open" / std::string(1, letter);
}

// Copies left by a process that ended without its last closes.
void RemoveLeftovers(const fs::path& folder) {
  std::error_code ec;
  for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
    const std::string name = it->path().filename().string();
    const long pid = std::strtol(name.c_str(), nullptr, 10);
    if (pid > 0 && pid != ::getpid() && ::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH)
      fs::remove(it->path(), ec);
  }
}

// Moves the local file to a private name; "" when that fails.
std::string MoveOut(const DriveState* state, const std::string& local) {
  const fs::path folder = DetachFolder(state);
  std::error_code ec;
  const bool first = g_detachCounter == 0;
  fs::create_directories(folder, ec);
  if (first) RemoveLeftovers(folder);
  const fs::path target = folder / (std::to_string(::getpid()) + "-" + std::to_string(++g_detachCounter));
  // A link keeps the cache's own delete (and its size book-keeping) right;
  // another file system needs a copy.
  if (::link(local.c_str(), target.c_str()) == 0) return target.string();
  if (fs::copy_file(local, target, fs::copy_options::overwrite_existing, ec)) return target.string();
  Trace(kTag, "Cannot keep the copy \"%s\": %s", local.c_str(), ec.message().c_str());
  return {};
}

}  // namespace

namespace qb::drive {

void HoldItem(PDOKAN_FILE_INFO info, DirectoryItem* item) {
  ++item->nOpenHolds;
  info->Context = reinterpret_cast<ULONG64>(item);
}

void ReleaseHold(PDOKAN_FILE_INFO info) {
  DirectoryItem* item = ContextItem(info);
  info->Context = 0;
  if (!item || --item->nOpenHolds != 0) return;
  std::string copy;
  {
    std::lock_guard hold(g_detachedMutex);
    auto it = g_detached.find(item);
    if (it == g_detached.end()) return;
    copy = it->second;
    g_detached.erase(it);
  }
  if (!copy.empty()) {
    std::error_code ec;
    fs::remove(copy, ec);
    Trace(kTag, "Last close of a removed file: \"%s\" dropped", copy.c_str());
  }
}

std::string PathOfItem(DriveState* state, const DirectoryItem* item) {
  CReadLock lock(&state->rDriveLock);
  return item->bPersistent ? item->sFullName : FileFullName(item);
}

bool IsDetached(const DirectoryItem* item) {
  std::lock_guard hold(g_detachedMutex);
  return g_detached.count(item) != 0;
}

std::string DetachedCopyOf(const DirectoryItem* item) {
  std::lock_guard hold(g_detachedMutex);
  auto it = g_detached.find(item);
  return it == g_detached.end() ? std::string() : it->second;
}

void DetachCopy(DriveState* state, DirectoryItem* item) {
  if (item->bPersistent || IsDetached(item)) return;
  std::string kept;
  if (CCacheItem* entry = state->pCache ? state->pCache->Find(CacheName(item), item->rFindData.cFileName) : nullptr) {
    kept = MoveOut(state, entry->sLocalPath);
    if (!kept.empty()) state->pCache->Delete(&entry, 1);
  }
  Trace(kTag, "\"%s\" is gone while open; its open keeps \"%s\"", FileFullName(item).c_str(), kept.c_str());
  std::lock_guard hold(g_detachedMutex);
  g_detached[item] = kept;
}

void MarkGone(DriveState* state, DirectoryItem* item) {
  item->bDeleted = 1;
  // A file whose own upload deletes its old object keeps its name and copy.
  if (item->nOpenHolds.load() != 0 && !item->bUploadPending) DetachCopy(state, item);
}

void RenameCopy(DriveState* state, DirectoryItem* item, const std::string& oldName, const std::string& oldFileName) {
  if (item->bPersistent || !state->pCache || IsDetached(item)) return;
  CCacheItem* entry = state->pCache->Find(oldName, oldFileName);
  if (entry) state->pCache->Rename(entry, CacheName(item), item->rFindData.cFileName);
}

}  // namespace qb::drive
