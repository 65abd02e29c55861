#pragma once
// The folder a conformance case runs in, and what that folder is. The same
// cases run against a plain local folder and against a mounted drive, so that
// every difference shows up as a case whose expectation depends on the kind.
#include <filesystem>
#include <string>

namespace qbconf {

// kMemFs is the drive layer serving its in-memory test file system: the
// drive's semantics without a device, so layer faults show apart from the
// device's.
enum class Kind { kPlain, kDrive, kMemFs };

// Where the cases work and what kind of file system it is. Chosen once per
// run from QB_CONFORMANCE_KIND ("plain", "memfs" or "drive"); the drive kind mounts a
// simulated device through the program and unmounts it at the end.
struct Target {
  Kind kind = Kind::kPlain;
  std::filesystem::path root;      // a fresh folder of the case's own lies below it
  std::filesystem::path backing;   // the device's backing folder (drive kind only)
};

const Target& CurrentTarget();

// A fresh, empty folder for one case under the target's root.
std::filesystem::path FreshFolder(const std::string& name);

}  // namespace qbconf
