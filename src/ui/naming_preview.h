#pragma once
// The names a naming pattern gives to a few typical files of a device, for
// the live preview of the profile editor.
#include <string>
#include <vector>

namespace qb::ui {

struct PreviewName {
  std::string original;  // "\DCIM\100CANON\IMG_0001.JPG"
  std::string renamed;   // the name in the virtual structure
};

// False when the pattern gives no name (malformed): `names` is then empty.
bool PreviewNaming(const std::string& pattern, std::vector<PreviewName>* names);

}  // namespace qb::ui
