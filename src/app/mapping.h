#pragma once
// The mapping of one device to one drive. It begins here; the device is
// prepared, listed and mounted by the mapping code that follows the parse.
#include <cstdint>

#include "app/invocation.h"

namespace qb::app {

// Maps the device of `inv` in this process and serves the drive until it is
// unmounted. Returns `main`'s code (0, -1, -9, -26, -29, -30, -31).
int32_t MapDevice(Invocation* inv);

}  // namespace qb::app
