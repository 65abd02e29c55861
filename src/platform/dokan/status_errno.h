#pragma once
// The one table from the NTSTATUS answers of the operations to the errno
// values that the kernel hands to the caller.
#include "platform/system/codes.h"

namespace qb::dokan {

// 0 for every success status (NT_SUCCESS), else a positive errno; a failure
// that the table does not name is EIO.
int ErrnoOfStatus(NTSTATUS status);

}  // namespace qb::dokan
