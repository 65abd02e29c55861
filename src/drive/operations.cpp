// The operation table handed to DokanMain. Slots left empty are answered by
// the drive layer itself.
#include "drive/drive_internal.h"

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
  return ops;
}

}  // namespace

const DOKAN_OPERATIONS* QuillboxOperations() {
  static const DOKAN_OPERATIONS table = MakeTable();
  return &table;
}
