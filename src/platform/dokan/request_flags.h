#pragma once
// Values shared by the request translations of the drive: how Linux open
// flags become the kernel values of a Windows create, and the constants of
// the handles that the layer opens for one request.
#include <string>

#include "platform/dokan/dokan.h"

namespace qb::dokan::requests {

constexpr double kCacheSeconds = 1.0;  // kernel cache of entries and attributes
constexpr ULONG kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr ULONG kSync = FILE_SYNCHRONOUS_IO_NONALERT;
constexpr ACCESS_MASK kQueryAccess = FILE_READ_ATTRIBUTES | SYNCHRONIZE;
constexpr ACCESS_MASK kDeleteAccess = DELETE | FILE_READ_ATTRIBUTES | SYNCHRONIZE;
constexpr ACCESS_MASK kListAccess = FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES | SYNCHRONIZE;

bool IsDot(const std::string& name);
// A name that Windows could hold: no separator of either kind.
bool UsableName(const char* name);
ACCESS_MASK AccessOfFlags(int flags);
ULONG OptionsOfFlags(int flags);
ULONG CreateDispositionOfFlags(int flags);
// A create that found the file answers a collision, which Windows turns
// into success with ERROR_ALREADY_EXISTS for CREATE_ALWAYS and OPEN_ALWAYS.
NTSTATUS CreateOutcome(NTSTATUS status, ULONG disposition);
// Attributes of a folder made just now.
BY_HANDLE_FILE_INFORMATION FolderNow();

}  // namespace qb::dokan::requests
