// Path helpers, lookups, hooks and the error mapping shared by the operations.
#include "common/strings.h"
#include "diag/trace.h"
#include "drive/drive_internal.h"
#include "platform/dokan/dokan_linux.h"

namespace qb::drive {

std::string_view ExtensionOf(std::string_view fileName) {
  const size_t dot = fileName.rfind('.');
  return dot == std::string_view::npos ? std::string_view() : fileName.substr(dot);
}

std::string FileFullName(const DirectoryItem* item) {
  std::string name = item->sFullName;
  name += ExtensionOf(item->rFindData.cFileName);
  return name;
}

std::string WithBackslash(std::string_view path) {
  std::string out(path);
  if (out.empty() || out.back() != '\\') out += '\\';
  return out;
}

std::string ParentPath(std::string_view path) {
  const size_t slash = path.rfind('\\');
  return slash == std::string_view::npos ? std::string("\\") : std::string(path.substr(0, slash + 1));
}

bool HasWildcard(std::string_view path) { return path.find_first_of("*?") != std::string_view::npos; }

bool IsOriginalStructure(const DriveState* state) {
  return (state->dwStructureFlags & kStructureMask) == 0;
}

DirectoryItem* FindFolder(const DriveState* state, std::string_view path) {
  if (!state->pDirectory || !state->pDirectory->m_pPersistFolders) return nullptr;
  const std::string key = path == "\\" ? std::string("\\") : WithBackslash(path);
  return state->pDirectory->FindItemByFullName(1, key.c_str(), 0);
}

DirectoryItem* FindFileByFullNameOnly(const DriveState* state, std::string_view path) {
  if (!state->pDirectory || !state->pDirectory->m_pFiles) return nullptr;
  return state->pDirectory->FindItemByFullName(0, std::string(path).c_str(), 0);
}

// A file is found by sFullName plus its extension. The index holds
// sFullName only, so the candidate names are the path without its extension
// and the path itself (a file without extension); a rare clash of two files
// with one sFullName ("a.jpg", "a.png") falls back to a walk in list order.
DirectoryItem* FindFile(const DriveState* state, std::string_view path) {
  if (!state->pDirectory || !state->pDirectory->m_pFiles) return nullptr;
  const size_t slash = path.rfind('\\');
  const std::string_view last = slash == std::string_view::npos ? path : path.substr(slash + 1);
  const std::string_view ext = ExtensionOf(last);
  const std::string base(path.substr(0, path.size() - ext.size()));
  DirectoryItem* first = state->pDirectory->FindItemByFullName(0, base.c_str(), 0);
  if (!first) return nullptr;
  if (EqualsNoCaseAZ(FileFullName(first), path)) return first;
  for (DirectoryItem* item : Raw(*state->pDirectory->m_pFiles)) if (item->IsLive() && EqualsNoCaseAZ(item->sFullName, base) &&
        EqualsNoCaseAZ(FileFullName(item), path))
      return item;
  return nullptr;
}

std::string CacheName(const DirectoryItem* item) {
  const std::string& full = item->sFullName;
  return !full.empty() && full[0] == '\\' ? full.substr(1) : full;
}

bool CheckIntegrity(DriveState* state) {
  return !state->hooks.fnIntegrityCheck || state->hooks.fnIntegrityCheck();
}

void SetupIcon(DriveState* state, const char* reason) {
  if (state->hooks.fnSetupIconAndSignalParent) state->hooks.fnSetupIconAndSignalParent(reason);
}

void RefreshShell(DriveState* state, uint32_t event, const std::string& path) {
  if (state->hooks.fnRefreshShell)
    state->hooks.fnRefreshShell(event, path);
  else
    qb::dokan::InvalidatePath(state->cDriveLetter, path, 0);
}

NTSTATUS TraceStatus(const char* tag, NTSTATUS status, int exitNo) {
  if (exitNo > 0)
    Trace(tag, "RETURN[%d]: RC=0x%08X (%s)", exitNo, static_cast<unsigned>(status), CodeToName(status));
  else
    Trace(tag, "RETURN: RC=0x%08X (%s)", static_cast<unsigned>(status), CodeToName(status));
  return status;
}

}  // namespace qb::drive

NTSTATUS ToNtStatus(DWORD dwError) {
  switch (dwError) {
    case 0: return STATUS_SUCCESS;
    case 1: return STATUS_UNSUCCESSFUL;
    case 2: case 123: return STATUS_OBJECT_NAME_NOT_FOUND;
    case 3: return STATUS_OBJECT_PATH_NOT_FOUND;
    case 5: return STATUS_ACCESS_DENIED;
    case 21: return STATUS_DEVICE_NOT_READY;
    case 32: return STATUS_SHARING_VIOLATION;
    case 50: return STATUS_NOT_SUPPORTED;
    case 80: case 183: return STATUS_OBJECT_NAME_COLLISION;
    case 87: return STATUS_INVALID_PARAMETER;
    case 112: return STATUS_DISK_FULL;
    case 145: return STATUS_DIRECTORY_NOT_EMPTY;
    case 267: return STATUS_NOT_A_DIRECTORY;
    case 1314: return STATUS_PRIVILEGE_NOT_HELD;
    default:
      Trace("M1@ToNtStatus: ", "Unknown error code %d", static_cast<int>(dwError));
      return STATUS_INVALID_PARAMETER;
  }
}
