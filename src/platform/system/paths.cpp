#include "platform/system/paths.h"

#include <unistd.h>

#include <cstdlib>
#include <functional>

namespace qb::sys {
namespace {

std::filesystem::path EnvOr(const char* name, const std::filesystem::path& fallback) {
  const char* value = std::getenv(name);
  if (value && *value == '/') return value;
  return fallback;
}

std::filesystem::path UserHome() {
  const char* home = std::getenv("HOME");
  return home && *home ? home : "/tmp";
}

}  // namespace

std::filesystem::path HomeOverride() {
  const char* home = std::getenv("QUILLBOX_HOME");
  if (!home || !*home) return {};
  return std::filesystem::absolute(home);
}

std::filesystem::path UserHivePath() {
  if (auto h = HomeOverride(); !h.empty()) return h / "user.reg";
  return EnvOr("XDG_CONFIG_HOME", UserHome() / ".config") / "quillbox" / "user.reg";
}

std::filesystem::path MachineHivePath() {
  if (auto h = HomeOverride(); !h.empty()) return h / "machine.reg";
  return "/etc/quillbox/machine.reg";
}

std::filesystem::path LocalAppDataDir() {
  if (auto h = HomeOverride(); !h.empty()) return h / "local";
  return EnvOr("XDG_DATA_HOME", UserHome() / ".local" / "share");
}

std::filesystem::path CommonAppDataDir() {
  if (auto h = HomeOverride(); !h.empty()) return h / "common";
  return "/usr/share";
}

std::filesystem::path DrivesRoot() {
  if (auto h = HomeOverride(); !h.empty()) return h / "drives";
  if (const char* run = std::getenv("XDG_RUNTIME_DIR"); run && *run == '/')
    return std::filesystem::path(run) / "quillbox" / "drives";
  return std::filesystem::path("/tmp") / ("quillbox-" + std::to_string(getuid())) / "drives";
}

std::filesystem::path SimulatedDevicesRoot() {
  if (auto h = HomeOverride(); !h.empty()) return h / "devices";
  return EnvOr("XDG_DATA_HOME", UserHome() / ".local" / "share") / "quillbox" / "devices";
}

std::filesystem::path TempDir() {
  std::error_code ec;
  auto dir = std::filesystem::temp_directory_path(ec);
  return ec ? std::filesystem::path("/tmp") : dir;
}

std::string SharedSectionName() {
  std::string name = "/QuillboxG." + std::to_string(getuid());
  if (auto h = HomeOverride(); !h.empty()) {
    char hex[17];
    snprintf(hex, sizeof hex, "%016zx", std::hash<std::string>{}(h.string()));
    name += ".";
    name += hex;
  }
  return name;
}

std::filesystem::path ExecutablePath() {
  std::error_code ec;
  auto self = std::filesystem::read_symlink("/proc/self/exe", ec);
  return ec ? std::filesystem::path() : self;
}

std::filesystem::path ExecutableDir() { return ExecutablePath().parent_path(); }

}  // namespace qb::sys
