#pragma once
// Windows file information to the kernel's attributes and back: the type
// and the read-only bit become the mode, FILETIMEs become timespecs.
#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>

#include "platform/dokan/dokan.h"

namespace qb::dokan {

struct Owner {
  uid_t uid = 0;
  gid_t gid = 0;
};

void StatOf(const BY_HANDLE_FILE_INFORMATION& info, uint64_t ino, const Owner& owner,
            struct stat* st);
void StatOf(const WIN32_FIND_DATAW& data, uint64_t ino, const Owner& owner, struct stat* st);
// Attributes after a chmod: read-only exactly when no write bit is left.
DWORD AttributesForMode(DWORD attributes, mode_t mode);
FILETIME FileTimeOf(const struct timespec& ts);
int64_t SizeOf(const BY_HANDLE_FILE_INFORMATION& info);

}  // namespace qb::dokan
