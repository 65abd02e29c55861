#pragma once
// What the drive layer offers beyond the Dokan calls on Linux: the mount
// point of a letter, the free-letter test and drive types (GetDriveTypeW),
// the forced removal of a hung drive (DefineDosDeviceW with
// DDD_REMOVE_DEFINITION) and the cache invalidation that stands for the
// shell refresh.
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string_view>

namespace qb::dokan {

// Drive types, with the values of GetDriveTypeW.
enum DriveType : unsigned {
  DRIVE_UNKNOWN = 0,
  DRIVE_NO_ROOT_DIR = 1,
  DRIVE_REMOVABLE = 2,
  DRIVE_FIXED = 3,
  DRIVE_REMOTE = 4,
  DRIVE_CDROM = 5,
  DRIVE_RAMDISK = 6,
};

// The letter of a mount point "X:\\", "X:" or "X" in upper case, or 0 when
// it names no letter A-Z.
char LetterOfMountPoint(std::string_view mountPoint);

// <drives root>/<LETTER> (the letter in upper case).
std::filesystem::path MountPointOf(char letter);

// GetDriveTypeW of "X:\\". C is the system disk (fixed). A letter served by
// this library is removable (or fixed / remote, as its mount options said); a
// foreign mount at the mount point has the type of its file system; a link,
// folder or file that another program put at the mount point is fixed; a
// stale mount of a killed server and an empty place have no root folder.
// Never touches a mounted file system (a hung server cannot block it).
unsigned GetDriveType(char letter);

// The free-letter test: true when the drive type is below removable.
bool IsDriveLetterFree(char letter);

// The removal that does not depend on the server: detaches the mount at once
// (lazy unmount) and aborts its FUSE connection, so that every request
// waiting on a hung server ends and the server's DokanMain returns when it
// runs again. Also cleans a stale mount point. True when nothing of the
// letter stays mounted.
bool ForceRemoveMountPoint(char letter);

// The removal of a drive whose device went, served by this process: the
// mount is detached at once (gone for every program), the requests under
// way and those of files still open get the drive's own answers, and the
// session ends when the last file is closed; a connection still there after
// `abortAfterMs` is aborted (open files end). False when the letter is not
// a drive of this process or the detach failed.
bool DetachMountPoint(char letter, uint32_t abortAfterMs);

// Makes every program see a change that was made behind the kernel's back:
// drops the kernel's cached entry, attributes and data of `path` (backslash
// form, "\DCIM\a.jpg") and of its folder, on the drive of `letter` served by
// this process. Never blocks a request: the work is queued to the drive's
// notifier thread; with waitMs > 0 the call waits that long for it to be
// done. True when the drive is served here (and, with a wait, when the
// invalidation was done in time). Safe from any thread, also from inside an
// operation of the table.
bool InvalidatePath(char letter, std::string_view path, uint32_t waitMs = 0);

// For a Cleanup called at the end of an open: leaves `rest` (what the end
// still has to wait for, such as the device's confirmation of an upload)
// to run later on the drive's finishing thread, before CloseFile, so that
// the Cleanup of the next released open can start meanwhile. Rests and
// CloseFile run in release order; requests on the file, and those that
// wait for every end (renames, deletes, listings, statfs), wait for the
// rest too, and the ends of one file never overlap.
// For a FlushFileBuffers called for a close(2) of a descriptor that wrote
// (an fsync is not one): leaves `rest` (such as the upload) to the
// drive's closing thread, in order with the ends of opens, where it may
// leave a rest of its own in turn; close(2) returns meanwhile, and the
// same requests wait for it.
// False (the caller runs `rest` itself) when no such call of the drive
// layer runs on this thread or it left a rest already.
bool DeferRestOfEnd(std::function<void()> rest);

}  // namespace qb::dokan
