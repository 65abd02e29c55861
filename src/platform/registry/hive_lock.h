#pragma once
// The advisory lock that serialises the writers of one hive across
// processes: flock on "<hive>.lock" beside the hive file. Taking it creates
// missing folders. Held from construction until destruction.
#include <filesystem>

#include "platform/system/codes.h"

namespace qb::reg {

class HiveLock {
 public:
  explicit HiveLock(const std::filesystem::path& hivePath);
  ~HiveLock();
  HiveLock(const HiveLock&) = delete;
  HiveLock& operator=(const HiveLock&) = delete;

  // ERROR_SUCCESS when held; else why not (ERROR_ACCESS_DENIED, ERROR_TIMEOUT...).
  DWORD Result() const { return result_; }

 private:
  int fd_ = -1;
  DWORD result_ = ERROR_SUCCESS;
};

// The Win32 value for an errno of a file operation on a hive.
DWORD HiveErrnoToWin32(int error);

}  // namespace qb::reg
