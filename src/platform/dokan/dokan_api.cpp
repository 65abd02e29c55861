// The library's entry points.
#include <fcntl.h>
#include <unistd.h>

#include <atomic>

#include "diag/trace.h"
#include "platform/dokan/dokan.h"
#include "platform/dokan/dokan_linux.h"
#include "platform/dokan/drive.h"
#include "platform/dokan/letter_state.h"

namespace {

std::atomic<bool> gInitialised{false};

bool FuseDeviceUsable() {
  const int fd = open("/dev/fuse", O_RDWR | O_CLOEXEC);
  if (fd < 0) return false;
  close(fd);
  return true;
}

}  // namespace

void DokanInit() {
  Trace("K0@DokanInit: ", "ENTER ");
  gInitialised = true;
  Trace("K0@DokanInit: ", "LEAVE ");
}

void DokanShutdown() {
  Trace("K0@DokanShutdown: ", "ENTER ");
  gInitialised = false;
  Trace("K0@DokanShutdown: ", "LEAVE ");
}

ULONG DokanVersion() { return DOKAN_VERSION; }

ULONG DokanDriverVersion() {
  if (FuseDeviceUsable()) return DOKAN_DRIVER_VERSION;
  Trace("K0@DokanDriverVersion: ", "driver missing");
  return 0;
}

int DokanMain(PDOKAN_OPTIONS DokanOptions, PDOKAN_OPERATIONS DokanOperations) {
  constexpr const char* kTag = "K1@DokanMain: ";
  Trace(kTag, "ENTER ");
  int rc = DOKAN_ERROR;
  const char letter = DokanOptions ? qb::dokan::LetterOfMountPoint(
                                         DokanOptions->MountPoint ? DokanOptions->MountPoint : "")
                                   : 0;
  if (!DokanOptions || !DokanOperations) {
    rc = DOKAN_ERROR;
  } else if (DokanOptions->Version < DOKAN_MINIMUM_COMPATIBLE_VERSION) {
    rc = DOKAN_VERSION_ERROR;
  } else if (!letter) {
    rc = DOKAN_DRIVE_LETTER_ERROR;
  } else if (letter == 'C') {
    rc = DOKAN_MOUNT_ERROR;  // the system disk
  } else if (!FuseDeviceUsable()) {
    Trace(kTag, "driver missing");
    rc = DOKAN_ERROR;
  } else {
    gInitialised = true;
    try {
      qb::dokan::Drive drive(letter, DokanOptions, *DokanOperations);
      rc = drive.Run();
    } catch (...) {
      Trace(kTag, "exception");
      rc = DOKAN_ERROR;
    }
  }
  Trace(kTag, "RETURN: RC=0x%08X (%d)", static_cast<unsigned>(rc), rc);
  return rc;
}

BOOL DokanRemoveMountPoint(LPCWSTR MountPoint) {
  constexpr const char* kTag = "K5@DokanRemoveMountPoint: ";
  const char letter = qb::dokan::LetterOfMountPoint(MountPoint ? MountPoint : "");
  Trace(kTag, "ENTER %c", letter ? letter : '?');
  const BOOL ok = letter && qb::dokan::UnmountLetter(letter) ? TRUE : FALSE;
  Trace(kTag, "RETURN: RC=0x%08X", static_cast<unsigned>(ok));
  return ok;
}
