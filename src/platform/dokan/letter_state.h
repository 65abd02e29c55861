#pragma once
// Who holds a drive letter. A server of this library holds an exclusive
// open-file-description lock (fcntl F_OFD_SETLK) on <drives root>/.X.lock
// for as long as it serves X (the kernel drops the lock when the server
// dies) and writes into it the device number of its mount. Looking at a
// letter only tests the lock (F_OFD_GETLK), never takes it. So a mount at X whose device number is recorded but whose lock
// nobody holds was left by a killed server: it is stale and the next user of
// the letter cleans it.
#include <filesystem>
#include <optional>
#include <string>

#include "platform/dokan/mount_table.h"

namespace qb::dokan {

enum class LetterState {
  kEmpty,        // nothing at the mount point
  kOursLive,     // served (or being mounted) by a live server of ours
  kOursStale,    // left by a killed server of ours: mount or folder
  kForeignMount, // another program mounted something there
  kForeign,      // a link, folder or file that another program put there
  kSystem,       // C
};

struct LetterRecord {
  int pid = 0;
  unsigned major = 0;
  unsigned minor = 0;
  unsigned options = 0;  // DOKAN_OPTION_* of the mount
};

struct LetterInfo {
  LetterState state = LetterState::kEmpty;
  std::optional<MountEntry> mount;
  std::optional<LetterRecord> record;
};

std::filesystem::path LockFileOf(char letter);
LetterInfo InspectLetter(char letter);

// The exclusive hold of a letter by a server. Move-only; released (and the
// record cleared) on destruction.
class LetterClaim {
 public:
  static std::optional<LetterClaim> Take(char letter);
  LetterClaim(LetterClaim&& other) noexcept;
  LetterClaim& operator=(LetterClaim&&) = delete;
  LetterClaim(const LetterClaim&) = delete;
  ~LetterClaim();

  bool WriteRecord(const LetterRecord& record);
  void ClearRecord();

 private:
  explicit LetterClaim(int fd) : fd_(fd) {}
  int fd_ = -1;
};

// Cleans what a killed server left at the letter (call with the claim held).
void CleanStale(char letter, const LetterInfo& info);

// Ends a FUSE connection through the control file system (mounted first
// when missing and allowed). False when the connection could not be aborted.
bool AbortConnection(unsigned connection);

// Plain unmount, then lazy unmount and abort when the mount is busy.
bool UnmountLetter(char letter);
// Lazy unmount of a letter of ours; `connection` gets its FUSE connection.
bool DetachLetter(char letter, unsigned* connection);
// Abort and lazy unmount at once (the server may hang).
bool ForceUnmountLetter(char letter);

}  // namespace qb::dokan
