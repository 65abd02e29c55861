// The operation table handed to DokanMain. Slots left empty are answered by
// the drive layer itself.
#include "drive/drive_internal.h"
#include "drive/write_side.h"

namespace {

DOKAN_OPERATIONS MakeTable() {
  DOKAN_OPERATIONS ops{};
  ops.ZwCreateFile = &Guard_QuillboxCreateFile;
  ops.CloseFile = &QuillboxCloseFile;
  ops.ReadFile = &Guard_QuillboxReadFile;
  ops.GetFileInformation = &QuillboxGetFileInformation;
  ops.FindFiles = &QuillboxFindFiles;
  ops.GetDiskFreeSpace = &QuillboxGetDiskFreeSpace;
  ops.GetVolumeInformation = &Guard_QuillboxGetVolumeInformation;
  // Write side.
  ops.Cleanup = &QuillboxCleanup;
  ops.WriteFile = &Guard_QuillboxWriteFile;
  ops.FlushFileBuffers = &QuillboxFlushFileBuffers;
  ops.SetEndOfFile = &QuillboxSetEndOfFile;
  ops.SetAllocationSize = &QuillboxSetAllocationSize;
  ops.SetFileAttributes = &QuillboxSetFileAttributes;
  ops.SetFileTime = &QuillboxSetFileTime;
  ops.DeleteFile = &QuillboxDeleteFile;
  ops.DeleteDirectory = &QuillboxDeleteDirectory;
  ops.MoveFile = &Guard_QuillboxMoveFile;
  return ops;
}

}  // namespace

const DOKAN_OPERATIONS* QuillboxOperations() {
  static const DOKAN_OPERATIONS table = MakeTable();
  return &table;
}
