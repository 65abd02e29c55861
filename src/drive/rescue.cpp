// Content that could not reach the device is kept outside the cache, where
// no unmount or purge deletes it, and the user is told where.
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <set>
#include <string>
#include <system_error>

#include "diag/trace.h"
#include "drive/write_side.h"
#include "platform/system/clock.h"
#include "platform/system/paths.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kTag = "M75@RescueContent: ";

// A name part without the characters a Linux name cannot hold.
std::string SafePart(std::string part) {
  for (char& c : part)
    if (c == '/' || c == '\0') c = '_';
  return part.empty() || part == "." || part == ".." ? std::string("_") : part;
}

fs::path RescueTarget(const DriveState* state, const std::string& drivePath) {
  fs::path target = qb::sys::LocalAppDataDir() / "Quillbox" / "Rescued" /
                    SafePart(state->sDeviceName.empty() ? state->sDeviceID : state->sDeviceName);
  size_t start = 0;
  while (start < drivePath.size()) {
    size_t end = drivePath.find('\\', start);
    if (end == std::string::npos) end = drivePath.size();
    if (end > start) target /= SafePart(drivePath.substr(start, end - start));
    start = end + 1;
  }
  return target;
}

// "name (YYYY-MM-DD HH-MM-SS).ext", with a counter when even that is taken.
fs::path FreeName(const fs::path& wanted) {
  std::error_code ec;
  if (!fs::exists(wanted, ec)) return wanted;
  const SYSTEMTIME t = qb::sys::GetLocalTime();
  char stamp[40];
  std::snprintf(stamp, sizeof stamp, " (%04u-%02u-%02u %02u-%02u-%02u", t.wYear, t.wMonth, t.wDay, t.wHour,
                t.wMinute, t.wSecond);
  for (int n = 1; n < 1000; ++n) {
    std::string name = wanted.stem().string() + stamp + (n > 1 ? " " + std::to_string(n) : "") + ")" +
                       wanted.extension().string();
    fs::path candidate = wanted.parent_path() / name;
    if (!fs::exists(candidate, ec)) return candidate;
  }
  return {};
}

// Copies under a hidden name beside `to` first: the rescued file appears
// whole or not at all (a full disk leaves no half of it). The hidden name
// is short, so that a name at the length limit can be rescued too.
bool CopyWhole(const fs::path& from, const fs::path& to, std::error_code* ec) {
  static std::atomic<unsigned> copies{0};
  const fs::path copying =
      to.parent_path() / (".rescuing-" + std::to_string(getpid()) + "-" + std::to_string(++copies));
  if (fs::copy_file(from, copying, fs::copy_options::overwrite_existing, *ec)) {
    fs::rename(copying, to, *ec);
    if (!*ec) return true;
  }
  std::error_code ignored;
  fs::remove(copying, ignored);
  return false;
}

void TellUser(DriveState* state, const std::string& text) {
  if (state->hooks.fnShowMessage)
    state->hooks.fnShowMessage(text);
  else
    std::fprintf(stderr, "%s\n", text.c_str());
}

std::mutex g_refusedMutex;
std::set<const DirectoryItem*> g_refused;  // items with a refused write, under g_refusedMutex

}  // namespace

namespace qb::drive {

std::string RescueContent(DriveState* state, const std::string& localPath, const std::string& drivePath,
                          const char* reason) {
  std::error_code ec;
  fs::path target = RescueTarget(state, drivePath);
  fs::create_directories(target.parent_path(), ec);
  target = FreeName(target);
  if (target.empty() || !CopyWhole(localPath, target, &ec)) {
    Trace(kTag, "Cannot rescue \"%s\" (%s): %s", drivePath.c_str(), reason, ec.message().c_str());
    TellUser(state, "Quillbox: the content of \"" + drivePath + "\" did not reach the device (" + reason +
                        ") and could not be rescued: " + ec.message() + ". The copy stays at \"" + localPath +
                        "\".");
    return {};
  }
  Trace(kTag, "Rescued \"%s\" (%s) to \"%s\"", drivePath.c_str(), reason, target.c_str());
  TellUser(state, "Quillbox: the content of \"" + drivePath + "\" did not reach the device (" + reason +
                      "). It was kept in \"" + target.string() + "\".");
  return target.string();
}

void NoteRefusedWrite(DirectoryItem* item) {
  std::lock_guard hold(g_refusedMutex);
  g_refused.insert(item);
}

bool TakeRefusedWrite(DirectoryItem* item) {
  std::lock_guard hold(g_refusedMutex);
  return g_refused.erase(item) > 0;
}

}  // namespace qb::drive
