#include "shell/refresh.h"

#include <signal.h>

#include <chrono>
#include <thread>

#include "common/strings.h"
#include "diag/trace.h"
#include "platform/dokan/dokan_linux.h"
#include "platform/system/process_spawn.h"

namespace qb::shell {
namespace {

constexpr const char* kTag = "D28@RefreshShell: ";
constexpr const char* kTagFn = "D31@RefreshShellFn: ";
// A listing of a drive that does not answer in this time is given up.
constexpr int kTouchLimitMs = 60000;

struct RefreshRequest {
  uint32_t event = 0;
  std::string path, path2;
  bool hasPath2 = false;
  char letter = 0;
  bool touch = false;
  uint32_t delaySeconds = 0;
};

// The listing of the folder that holds `drivePath` on the mount.
void Touch(const RefreshRequest& r) {
  std::string p = r.hasPath2 ? r.path2 : r.path;
  std::string local = p;
  for (char& c : local)
    if (c == '\\') c = '/';
  TouchFolder(dokan::MountPointOf(r.letter).string() + local);
  Trace(kTagFn, "Refresh requested: \"%c:%s*\"", r.letter, p.c_str());
}

std::string WithoutTrailingSlash(std::string p) {
  if (p.size() > 1 && p.back() == '\\') p.pop_back();
  return p;
}

void RefreshShellFn(RefreshRequest r) {
  if (r.delaySeconds) std::this_thread::sleep_for(std::chrono::seconds(r.delaySeconds));
  if (r.touch) Touch(r);
  if (r.event == 0) return;
  std::string a = WithoutTrailingSlash(r.path), b = WithoutTrailingSlash(r.path2);
  dokan::InvalidatePath(r.letter, a);
  if (r.hasPath2) dokan::InvalidatePath(r.letter, b);
  Trace(kTagFn, "Refresh (0x%08X): \"%c:%s\":\"%s\"", r.event, r.letter, a.c_str(), r.hasPath2 ? b.c_str() : "");
}

}  // namespace

void TouchFolder(const std::string& folder) {
  // A program of its own lists the folder (a fork would keep this process's
  // descriptor of the drive open); a thread waits for it with a limit so
  // that it leaves no zombie behind.
  sys::ChildProcess child;
  if (!sys::SpawnProcess({"/bin/ls", "-f", folder}, {}, &child, true)) return;
  try {
    std::thread([c = std::move(child)]() mutable {
      int code = 0;
      if (c.Wait(kTouchLimitMs, &code)) return;
      kill(c.Pid(), SIGKILL);
      c.Wait(kTouchLimitMs, &code);
    }).detach();
  } catch (...) {
  }
}

void RefreshShell(uint32_t event, const char* path, const char* path2, char letter, bool touch,
                  uint32_t delaySeconds) {
  Trace(kTag, "(0x%08X): \"%s\", \"%s\"", event, path ? path : "<NULL>", path2 ? path2 : "<NULL>");
  if (!path) {
    Trace(kTag, "LEAVE[1]");
    return;
  }
  RefreshRequest r;
  r.event = event;
  r.path = path;
  r.hasPath2 = path2 != nullptr;
  r.path2 = path2 ? path2 : "";
  r.letter = static_cast<char>(ToUpperAZ(letter));
  r.touch = touch;
  r.delaySeconds = delaySeconds;
  try {
    std::thread(RefreshShellFn, std::move(r)).detach();
  } catch (...) {
    Trace(kTag, "No thread for the refresh");
  }
  Trace(kTag, "LEAVE[2]");
}

}  // namespace qb::shell
