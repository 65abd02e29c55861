#include "platform/dokan/mount_table.h"

#include <cstdio>
#include <fstream>
#include <sstream>

namespace qb::dokan {
namespace {

// The table writes blanks, tabs, newlines and backslashes as \ooo.
std::string Unescape(const std::string& s) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '\\' && i + 3 < s.size()) {
      const std::string oct = s.substr(i + 1, 3);
      if (oct.size() == 3 && oct.find_first_not_of("01234567") == std::string::npos) {
        out.push_back(static_cast<char>(std::stoi(oct, nullptr, 8)));
        i += 3;
        continue;
      }
    }
    out.push_back(s[i]);
  }
  return out;
}

std::optional<MountEntry> ParseLine(const std::string& line) {
  std::istringstream in(line);
  MountEntry e;
  int parent = 0;
  std::string devs, root, mountPoint;
  if (!(in >> e.mountId >> parent >> devs >> root >> mountPoint)) return std::nullopt;
  if (sscanf(devs.c_str(), "%u:%u", &e.major, &e.minor) != 2) return std::nullopt;
  e.mountPoint = Unescape(mountPoint);
  std::string field;
  while (in >> field && field != "-") {
  }
  if (!(in >> e.fsType >> e.source)) return std::nullopt;
  e.fsType = Unescape(e.fsType);
  e.source = Unescape(e.source);
  return e;
}

}  // namespace

std::vector<MountEntry> ReadMountTable() {
  std::vector<MountEntry> out;
  std::ifstream in("/proc/self/mountinfo");
  std::string line;
  while (std::getline(in, line))
    if (auto e = ParseLine(line)) out.push_back(std::move(*e));
  return out;
}

std::optional<MountEntry> FindMount(const std::filesystem::path& path) {
  std::optional<MountEntry> found;
  const std::string want = path.lexically_normal().string();
  for (MountEntry& e : ReadMountTable())
    if (e.mountPoint == want) found = std::move(e);  // later lines lie on top
  return found;
}

bool IsMountedAs(const std::filesystem::path& path, const std::string& fsType) {
  const std::string want = path.lexically_normal().string();
  for (const MountEntry& e : ReadMountTable())
    if (e.mountPoint == want && e.fsType == fsType) return true;
  return false;
}

}  // namespace qb::dokan
