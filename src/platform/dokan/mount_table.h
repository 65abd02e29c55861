#pragma once
// The mount table of this process (/proc/self/mountinfo). Reading it never
// touches a mounted file system, so a hung server cannot block it.
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace qb::dokan {

struct MountEntry {
  int mountId = 0;
  unsigned major = 0;
  unsigned minor = 0;  // for a FUSE mount: the number of its connection
  std::string mountPoint;
  std::string fsType;  // "fuse.quillboxfs"
  std::string source;  // the volume name for our drives
};

std::vector<MountEntry> ReadMountTable();
// The topmost mount whose mount point is `path` (compared as text).
std::optional<MountEntry> FindMount(const std::filesystem::path& path);
// True when a file system of `fsType` is mounted at `path`.
bool IsMountedAs(const std::filesystem::path& path, const std::string& fsType);

}  // namespace qb::dokan
