#pragma once
// The commands every back end offers, plus the write and move commands when
// the device can write or move: what a device answers for its capabilities.
#include "platform/portable/portable.h"

namespace qb::portable {

KeyCollection SupportedCommands(bool canWrite, bool canMove);

}  // namespace qb::portable
