#include "app/launch.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "app/main_codes.h"
#include "app/neighbours.h"
#include "app/super_globals.h"
#include "common/strings.h"
#include "diag/trace.h"
#include "platform/portable/portable.h"
#include "platform/system/child_handles.h"
#include "platform/system/paths.h"

namespace qb::app {
namespace {

constexpr size_t kChildLineCapacity = 520;
constexpr int kPassMs = 100;
constexpr int kMaxPasses = 300;
constexpr int kCheckEvery = 10;

std::string QuoteIfBlank(const std::string& s) {
  return s.find(' ') == std::string::npos ? s : "\"" + s + "\"";
}

enum class WaitResult { kChild, kEvent, kTimeout, kFailed };

// One pass: the child first (as the lower index of the wait), then the event.
WaitResult WaitOnePass(sys::ChildProcess& child, int event) {
  struct pollfd fds[2] = {{child.WaitFd(), POLLIN, 0}, {event, POLLIN, 0}};
  int r = poll(fds, 2, kPassMs);
  if (r < 0) return errno == EINTR ? WaitResult::kTimeout : WaitResult::kFailed;
  if (r == 0) return WaitResult::kTimeout;
  if (fds[0].revents & (POLLIN | POLLHUP)) return WaitResult::kChild;
  if (fds[1].revents & POLLIN) return sys::WaitEventFd(event, 0) ? WaitResult::kEvent : WaitResult::kTimeout;
  return WaitResult::kFailed;
}

int32_t ChildEnded(sys::ChildProcess& child) {
  Trace("M31@MapThroughChild: ", "dwResult = 0x%08X", 0u);
  int code = 0;
  bool killed = false;
  if (!child.Wait(1000, &code, &killed) || killed) return kMainChildFailed;
  Trace("M31@MapThroughChild: ", "Quillbox exited = 0x%08X", static_cast<uint32_t>(code));
  return kChildCodeBase + code;
}

}  // namespace

std::string OwnExecutablePath(bool quoted) {
  std::string folder = nb::InstallFolder();
  if (folder.empty()) return {};
  while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
  std::filesystem::path path = std::filesystem::path(folder) / "quillbox";
  std::error_code ec;
  if (!std::filesystem::exists(path, ec)) path = sys::ExecutableDir() / "quillbox";
  return quoted ? QuoteIfBlank(path.string()) : path.string();
}

std::string BuildChildCommandLine(const LaunchRequest& r) {
  std::string path = OwnExecutablePath(true);
  if (path.empty()) return {};
  std::string line = path;
  if (!r.mount) {
    if (!r.letter) return {};
    line += qb::Format(" /u %c:", r.letter);
    return line;
  }
  if (!r.letter) return {};
  if (r.deviceId.empty()) {
    Trace("M30@LaunchQuillbox: ", "Device \"%s\" not found", r.deviceId.c_str());
    return {};
  }
  line += qb::Format(" /i %s /e %08X /p %08X /q", QuoteIfBlank(r.deviceId).c_str(),
                     static_cast<uint32_t>(r.event), static_cast<uint32_t>(getpid()));
  if (r.waitWindow >= 0) line += qb::Format(" /w %08X", static_cast<uint32_t>(r.waitWindow));
  if (r.parentWindow) line += qb::Format(" /h %08X", static_cast<uint32_t>(r.parentWindow));
  if (r.openExplorer && *r.openExplorer) line += " /x";
  if (!r.format.empty()) line += qb::Format(" /f \"%s\"", r.format.c_str());
  line += qb::Format(" /l %c", r.letter);
  if (!r.storageName.empty()) line += qb::Format(" /sn \"%s\"", r.storageName.c_str());
  if (!r.storageIndex.empty()) line += qb::Format(" /si \"%s\"", r.storageIndex.c_str());
  line += qb::Format(" %c:", r.letter);
  std::string cut;
  _TcsCpy(&cut, kChildLineCapacity, line.c_str());
  return cut;
}

sys::ChildProcess LaunchQuillbox(const LaunchRequest& request) {
  Trace("M30@LaunchQuillbox: ", "ENTER mount=%d, letter=%c", request.mount ? 1 : 0,
        request.letter ? request.letter : '-');
  sys::ChildProcess child;
  std::string line = BuildChildCommandLine(request);
  if (line.empty()) {
    Trace("M30@LaunchQuillbox: ", "RETURN[1]: RC=0x%08X (%s)", 0u, CodeToName(0));
    return child;
  }
  Trace("M30@LaunchQuillbox: ", "Invoking \"%s\"", line.c_str());
  // The child opens the device: a device this process closed a moment ago
  // and still holds would keep it out.
  qb::portable::ReleaseIdleDevices();
  std::vector<int> inherit;
  if (request.event >= 0) inherit.push_back(request.event);
  if (request.waitWindow >= 0) inherit.push_back(request.waitWindow);
  if (!sys::SpawnProcess(sys::SplitCommandLine(line), inherit, &child, true)) {
    Trace("M30@LaunchQuillbox: ", "Invoke failed, error=%d", errno);
    Trace("M30@LaunchQuillbox: ", "RETURN[2]: RC=0x%08X (%s)", 0u, CodeToName(0));
    return child;
  }
  Trace("M30@LaunchQuillbox: ", "RETURN[3]: RC=0x%08X (%s)", static_cast<uint32_t>(child.Pid()),
        CodeToName(child.Pid()));
  return child;
}

int32_t MapThroughChild(const std::string& deviceId, char letter, const std::string& format,
                        const std::string& storageName, const std::string& storageIndex) {
  Trace("M31@MapThroughChild: ", "Mapping \"%s\" to %c: via command-line", deviceId.c_str(), letter);
  int event = sys::CreateEventFd();
  LaunchRequest request;
  request.event = event;
  request.format = format;
  request.deviceId = deviceId;
  request.letter = letter;
  request.storageName = storageName;
  request.storageIndex = storageIndex;
  sys::ChildProcess child = event >= 0 ? LaunchQuillbox(request) : sys::ChildProcess();
  int32_t result = kMainChildFailed;
  if (child.Valid()) {
    CSuperGlobals* globals = SuperGlobals();
    for (int pass = 1;; ++pass) {
      WaitResult w = WaitOnePass(child, event);
      if (w == WaitResult::kChild) {
        result = ChildEnded(child);
        break;
      }
      if (w == WaitResult::kFailed) break;
      if (w == WaitResult::kEvent) {
        Trace("M31@MapThroughChild: ", "dwResult = 0x%08X", 1u);
        if (globals) globals->SetMappedDeviceEventSignalled(deviceId);
        int outstanding = globals ? globals->GetMappedDeviceOutstandingEvents() : 0;
        if (outstanding == 0) {
          Trace("M31@MapThroughChild: ", "No more events");
          result = kMainCommandLineMapped;
          break;
        }
        Trace("M31@MapThroughChild: ", "%d events still expected", outstanding);
      }
      if (pass % kCheckEvery == 0 && globals) globals->CheckAllNonSignalledDevices(0);
      if (pass >= kMaxPasses) {
        Trace("M31@MapThroughChild: ", "Timeout while waiting for mapping via command-line");
        result = kMainMappingTimeout;
        break;
      }
    }
  }
  if (event >= 0) close(event);
  Trace("M31@MapThroughChild: ", "RETURN: RC=0x%08X (%s)", static_cast<uint32_t>(result), CodeToName(result));
  return result;
}

}  // namespace qb::app
