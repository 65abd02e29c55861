#pragma once
// The device profile as the mapping reads and writes it: the preferred
// letters per storage card, the policy for a taken letter, the structure,
// the format string and the two lists of the tree. Read with the fall-back to
// the default profile; a device without a profile of its own gets one at
// once (letters included).
#include <cstdint>
#include <string>

namespace qb::app {

struct MappingProfile {
  std::string friendlyName, serialNumber, pnpId;  // the key (and the PnP id)
  bool existed = false;       // the device had a profile of its own
  std::string alias;
  char letters[4] = {0, 0, 0, 0};  // DriveLetter, DriveLetter2..4; 0 empty
  std::string formatString;
  uint32_t autoMap = 0, ignore = 0, multiCardSupport = 0, policy = 0;
  uint32_t fileSystem = 0x00020000;
  std::string excludeList, ignoredStoragesList;
};

// Reads the profile of the device; writes it as the device's own when it
// came from the default profile.
MappingProfile ReadMappingProfile(const std::string& friendlyName, const std::string& serial,
                                  const std::string& pnpId);
// Re-reads MultiCardSupport, FileSystem and the letters (after the dialog).
void RereadMappingChoices(MappingProfile* profile);
// Writes the profile without forcing letters: only a new key gets them.
void WriteMappingProfile(const MappingProfile& profile);

}  // namespace qb::app
