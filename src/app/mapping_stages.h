#pragma once
// The stages of a mapping after the letter is chosen, each in its own file:
// the storages and the listing (mapping_listing.cpp), the mount loop
// (mount_loop.cpp) and the start-up of the new drive (mount_setup.cpp).
#include <cstdint>
#include <string>

struct DriveState;
struct DOKAN_OPERATIONS;

namespace qb::app {

struct MappingState;

// Storage selection, device check and listing into the drive's tree, under
// the drive lock held for writing. Returns -26 for a selector that names no
// storage; otherwise 0 with `listed` telling whether the mount may follow.
int32_t SelectAndList(MappingState* state, DriveState* drive, bool* listed);

// The questions before the mount (empty device) and the sort. False when the
// user declined.
bool PrepareMount(MappingState* state, DriveState* drive);

// The device (with this storage selector) served at another letter is
// refused before the device is opened: the instance that serves it holds
// it, and USB lets one program claim an MTP device. Only where the refusal
// asks nothing of the user (a direct child, a quiet instance); true with the
// mapping's code when refused.
bool RefusedBeforeOpening(MappingState* state, int32_t* code);

// The mount loop: refusals, mounts, retries, dialog. Returns the mapping's
// code (0, -29, -30, or the failure code of a direct child).
int32_t MountLoop(MappingState* state, DriveState* drive);

// The operation table handed to DokanMain: the drive's, with the Mounted slot
// of the mapping (which makes the first request come promptly).
DOKAN_OPERATIONS* MappingOperations();

// SetupIconAndSignalParent, with the operation's name as the reason.
void SetupIconAndSignalParent(const char* reason);
// Forgets that the mount was made (before the next attempt).
void ResetMountStartUp();

}  // namespace qb::app
