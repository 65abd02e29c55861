#pragma once
// The codes that the command-line `main` returns; ProcessError turns each
// into the process exit code and, where the user is to see it, a message.
#include <cstdint>

namespace qb::app {

enum MainCode : int32_t {
  kMainDone = 0,
  kMainDeviceIgnored = -1,
  kMainAgentNotAllowed = -3,
  kMainNoOptionsRecord = -4,
  kMainIntegrityFailed = -9,
  kMainBadArgument = -10,
  kMainTooManyStorages = -11,
  kMainNoOperationTable = -12,
  kMainNothingToMap = -13,
  kMainBadMOption = -20,
  kMainAliasNotFound = -21,
  kMainChildFailed = -23,
  kMainMissingMOption = -24,
  kMainMappingTimeout = -25,
  kMainInvalidStorage = -26,
  kMainBadSOption = -27,
  kMainDeviceMapped = -29,
  kMainStorageMapped = -30,
  kMainLetterUnavailable = -31,
  kMainBadSwitch = -32,
  kMainNotMappedDrive = -34,
  kMainNameNotFound = -35,
  kMainSerialNotFound = -36,
  kMainNotInitialized = -89,
  kMainCommandLineMapped = 23,
  kMainUnmounted = 28,
  kMainUsage = 33,
};

// A child's exit code c reaches its parent as this base plus c.
constexpr int32_t kChildCodeBase = 0x44440000;

// Process ends before `main` runs.
constexpr int32_t kExitNoSharedState = -200;
constexpr int32_t kExitSharedStateCreation = -300;
constexpr int32_t kExitNoCommandLineWindow = -1;

}  // namespace qb::app
