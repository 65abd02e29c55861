#pragma once
// The letter choice of a mapping instance: the device's profile, whether the
// device is mapped automatically, the preferred letter with its placeholders,
// the policy and the mapping dialog; also the skipped card and the launch of
// the next card's instance.
#include <cstdint>
#include <vector>

#include "app/invocation.h"

namespace qb::app {

// The device list as rows (empty when it cannot be read). Every reading
// opens each device.
std::vector<ListedDevice> ReadDeviceList();

struct MappingState;

struct LetterOutcome {
  bool mount = false;  // state->letter is to be mounted
  int32_t code = 0;    // otherwise the mapping ends with this code
};
LetterOutcome ChooseDriveLetter(MappingState* state);

// Starts the instance for the next storage card when storages are left in
// the lists; with `noWait` it does not wait for this drive (/o).
void LaunchNextCard(MappingState* state, bool noWait);

// Fills the lists from the device's storages after this card when they are
// empty (the device is opened for that), then starts the next card's
// instance (without /o).
void PassToNextCard(MappingState* state);

}  // namespace qb::app
