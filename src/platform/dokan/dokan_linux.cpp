#include "platform/dokan/dokan_linux.h"

#include <chrono>
#include <map>
#include <mutex>
#include <thread>

#include "diag/trace.h"
#include "platform/dokan/drive.h"
#include "platform/dokan/letter_state.h"
#include "platform/system/paths.h"

namespace qb::dokan {
namespace {

// Drives served by this process. Lock order: gDrivesMutex before the
// drive's own notifier lock.
std::mutex gDrivesMutex;
std::map<char, Drive*> gDrives;

unsigned TypeOfFileSystem(const std::string& fsType) {
  if (fsType == "nfs" || fsType == "nfs4" || fsType == "cifs" || fsType == "smb3" ||
      fsType == "fuse.sshfs" || fsType == "9p")
    return DRIVE_REMOTE;
  if (fsType == "iso9660" || fsType == "udf") return DRIVE_CDROM;
  if (fsType == "tmpfs" || fsType == "ramfs") return DRIVE_RAMDISK;
  return DRIVE_FIXED;
}

}  // namespace

void RegisterDrive(char letter, Drive* drive) {
  std::lock_guard lock(gDrivesMutex);
  gDrives[letter] = drive;
}

void UnregisterDrive(char letter) {
  std::lock_guard lock(gDrivesMutex);
  gDrives.erase(letter);
}

char LetterOfMountPoint(std::string_view mp) {
  if (mp.empty() || mp.size() > 3) return 0;
  char c = mp[0];
  if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  if (c < 'A' || c > 'Z') return 0;
  if (mp.size() >= 2 && mp[1] != ':') return 0;
  if (mp.size() == 3 && mp[2] != '\\' && mp[2] != '/') return 0;
  return c;
}

std::filesystem::path MountPointOf(char letter) {
  if (letter >= 'a' && letter <= 'z') letter = static_cast<char>(letter - 'a' + 'A');
  std::error_code ec;
  std::filesystem::path root = qb::sys::DrivesRoot();
  std::filesystem::path canonical = std::filesystem::weakly_canonical(root, ec);
  return (ec ? root : canonical) / std::string(1, letter);
}

unsigned GetDriveType(char letter) {
  if (letter >= 'a' && letter <= 'z') letter = static_cast<char>(letter - 'a' + 'A');
  if (letter < 'A' || letter > 'Z') return DRIVE_NO_ROOT_DIR;
  const LetterInfo info = InspectLetter(letter);
  switch (info.state) {
    case LetterState::kSystem: return DRIVE_FIXED;
    case LetterState::kEmpty:
    case LetterState::kOursStale: return DRIVE_NO_ROOT_DIR;
    case LetterState::kForeign: return DRIVE_FIXED;
    case LetterState::kForeignMount: return TypeOfFileSystem(info.mount->fsType);
    case LetterState::kOursLive: {
      const unsigned options = info.record ? info.record->options : DOKAN_OPTION_REMOVABLE;
      if (options & DOKAN_OPTION_NETWORK) return DRIVE_REMOTE;
      if (options & DOKAN_OPTION_REMOVABLE) return DRIVE_REMOVABLE;
      return DRIVE_FIXED;
    }
  }
  return DRIVE_UNKNOWN;
}

bool IsDriveLetterFree(char letter) { return GetDriveType(letter) < DRIVE_REMOVABLE; }

bool ForceRemoveMountPoint(char letter) {
  constexpr const char* kTag = "K6@ForceRemoveMountPoint: ";
  if (letter >= 'a' && letter <= 'z') letter = static_cast<char>(letter - 'a' + 'A');
  Trace(kTag, "ENTER %c", letter);
  const bool ok = letter >= 'A' && letter <= 'Z' && ForceUnmountLetter(letter);
  Trace(kTag, "RETURN: RC=0x%08X", ok ? 1u : 0u);
  return ok;
}

bool DetachMountPoint(char letter, uint32_t abortAfterMs) {
  constexpr const char* kTag = "K7@DetachMountPoint: ";
  if (letter >= 'a' && letter <= 'z') letter = static_cast<char>(letter - 'a' + 'A');
  Drive* served = nullptr;
  {
    std::lock_guard lock(gDrivesMutex);
    auto it = gDrives.find(letter);
    if (it != gDrives.end()) served = it->second;
  }
  unsigned connection = 0;
  const bool ok = served && DetachLetter(letter, &connection);
  Trace(kTag, "%c: %d (connection %u)", letter, ok ? 1 : 0, connection);
  if (!ok) return false;
  // While the drive is registered here its session runs, so the connection
  // number is still ours when it is aborted.
  std::thread([letter, served, connection, abortAfterMs] {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(abortAfterMs);
    for (;;) {
      {
        std::lock_guard lock(gDrivesMutex);
        auto it = gDrives.find(letter);
        if (it == gDrives.end() || it->second != served) return;
        if (std::chrono::steady_clock::now() >= end) {
          Trace(kTag, "%c: files still open after %u ms; aborting connection %u", letter, abortAfterMs, connection);
          AbortConnection(connection);
          return;
        }
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  }).detach();
  return true;
}

bool InvalidatePath(char letter, std::string_view path, uint32_t waitMs) {
  if (letter >= 'a' && letter <= 'z') letter = static_cast<char>(letter - 'a' + 'A');
  std::shared_ptr<InvalidationTicket> ticket;
  {
    std::lock_guard lock(gDrivesMutex);
    auto it = gDrives.find(letter);
    if (it == gDrives.end()) return false;
    ticket = it->second->QueueInvalidation(std::string(path.empty() ? "\\" : path));
  }
  if (!ticket) return false;
  // A request thread must not wait: the kernel may hold the very folder
  // that the invalidation needs until this request is answered.
  if (waitMs == 0 || InsideRequest()) return true;
  std::unique_lock lock(ticket->mutex);
  return ticket->done.wait_for(lock, std::chrono::milliseconds(waitMs),
                               [&] { return ticket->finished; });
}

}  // namespace qb::dokan
