#include "app/desktop_host.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <vector>

#include "app/launch.h"
#include "app/main_codes.h"
#include "app/neighbours.h"
#include "app/process_error.h"
#include "app/super_globals.h"
#include "diag/trace.h"
#include "platform/system/child_handles.h"

namespace qb::app {
namespace {

constexpr const char* kTag = "M70@Desktop: ";
constexpr int kCheckEvery = 10;
constexpr int kReapMs = 1000;

// Children that went on serving their drive after the window stopped
// waiting for them; reaped once they end (the window's refreshes look).
std::vector<sys::ChildProcess>& ServingChildren() {
  static std::vector<sys::ChildProcess> children;
  return children;
}

void ReapServingChildren() {
  auto& children = ServingChildren();
  std::erase_if(children, [](sys::ChildProcess& c) {
    int code = 0;
    return c.Wait(0, &code);
  });
}

// One child that maps a device, or unmounts a drive.
class Child : public ui::ChildJob {
 public:
  Child(sys::ChildProcess child, int event, sys::ProgressPipe progress, std::string deviceId)
      : child_(std::move(child)), event_(event), progress_(progress), deviceId_(std::move(deviceId)) {}
  ~Child() override {
    if (!ended_) ServingChildren().push_back(std::move(child_));
    if (event_ >= 0) close(event_);
    sys::CloseProgressPipe(&progress_);
  }

  State Poll() override {
    if (ended_) return State::kDone;
    ++rounds_;
    struct pollfd fds[2] = {{child_.WaitFd(), POLLIN, 0}, {event_, POLLIN, 0}};
    int n = poll(fds, event_ >= 0 ? 2 : 1, 0);
    if (n > 0 && (fds[0].revents & (POLLIN | POLLHUP))) return Ended();
    if (n > 0 && event_ >= 0 && (fds[1].revents & POLLIN) && sys::WaitEventFd(event_, 0)) {
      Trace(kTag, "dwResult = 0x%08X", 2u);
      CSuperGlobals* globals = SuperGlobals();
      if (globals) globals->SetMappedDeviceEventSignalled(deviceId_);
      int outstanding = globals ? globals->GetMappedDeviceOutstandingEvents() : 0;
      if (outstanding == 0) {
        Trace(kTag, "No more events");
        return State::kDone;
      }
      Trace(kTag, "%d events still expected", outstanding);
    }
    if (rounds_ % kCheckEvery == 0 && SuperGlobals()) SuperGlobals()->CheckAllNonSignalledDevices(0);
    return State::kRunning;
  }

  int ExitCode() const override { return code_; }
  int ProgressFd() const override { return progress_.readFd; }

  void Cancel() override {
    if (ended_) return;
    // The child ends in order: a serving child unmounts its drive first.
    Trace(kTag, "Cancelled: stopping child %d", child_.Pid());
    kill(child_.Pid(), SIGTERM);
    child_.Wait(kReapMs, &code_);
    ended_ = true;
  }

 private:
  State Ended() {
    Trace(kTag, "dwResult = 0x%08X", 0u);
    bool killed = false;
    if (!child_.Wait(kReapMs, &code_, &killed) || killed) code_ = kMainChildFailed;
    Trace(kTag, "Quillbox exited = 0x%08X", static_cast<uint32_t>(code_));
    ended_ = true;
    return State::kDone;
  }

  sys::ChildProcess child_;
  int event_;
  sys::ProgressPipe progress_;
  std::string deviceId_;
  int rounds_ = 0;
  int code_ = 0;
  bool ended_ = false;
};

sigset_t WindowSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (int s : {SIGTERM, SIGINT, SIGHUP, SIGUSR1}) sigaddset(&set, s);
  return set;
}

class Host : public ui::DesktopHost {
 public:
  ~Host() override {
    if (signalFd_ >= 0) close(signalFd_);
  }

  bool InitFailed() override { return nb::DeviceAccessFailed(); }

  bool ListDevices(std::vector<ui::DeviceInfo>* devices) override {
    ReapServingChildren();
    nb::DeviceList list;
    if (!nb::GetDevices(&list)) return false;
    devices->clear();
    for (size_t i = 0; i < list.ids.size(); ++i)
      devices->push_back({list.ids[i], list.names[i], list.serials[i], list.pnpIds[i]});
    return true;
  }

  std::vector<std::string> StorageNames(const std::string& deviceId) override {
    return nb::StorageNames(deviceId);
  }

  bool IsLetterFree(char letter) override { return !nb::IsLetterInUse(letter); }

  bool MappedDrive(char letter, ui::MappedDriveInfo* drive) override {
    CSuperGlobals* globals = SuperGlobals();
    if (!globals || !globals->IsDriveMapped(letter) || !nb::IsLetterInUse(letter)) return false;
    MappedDeviceInfo info;
    if (!globals->GetMappedDevice(letter, &info)) return false;
    *drive = {info.deviceId, info.friendlyName, info.alias, info.serialNumber, info.pnpId, info.storageName,
              info.deviceType};
    return true;
  }

  std::unique_ptr<ui::ChildJob> StartMapping(const ui::DeviceInfo& device, char letter, bool openExplorer) override {
    sys::ProgressPipe progress;
    if (!sys::CreateProgressPipe(&progress)) return nullptr;
    int event = sys::CreateEventFd();
    LaunchRequest request;
    request.event = event;
    request.waitWindow = progress.writeFd;
    request.openExplorer = &openExplorer;
    request.deviceId = device.id;
    request.letter = letter;
    sys::ChildProcess child = event >= 0 ? LaunchQuillbox(request) : sys::ChildProcess();
    // The child holds its own copy of the writing end.
    close(progress.writeFd);
    progress.writeFd = -1;
    if (!child.Valid()) {
      if (event >= 0) close(event);
      sys::CloseProgressPipe(&progress);
      return nullptr;
    }
    return std::make_unique<Child>(std::move(child), event, progress, device.id);
  }

  std::unique_ptr<ui::ChildJob> StartUnmapping(char letter) override {
    LaunchRequest request;
    request.mount = false;
    request.letter = letter;
    sys::ChildProcess child = LaunchQuillbox(request);
    if (!child.Valid()) return nullptr;
    return std::make_unique<Child>(std::move(child), -1, sys::ProgressPipe(), std::string());
  }

  std::string OutcomeText(int exitCode) override {
    return ClassifyError(kChildCodeBase + exitCode).message;
  }

  void SetMainWindow(uint64_t id) override {
    // Window handles do not cross processes here: the shared state keeps
    // the process that shows the window, which a second instance signals.
    if (CSuperGlobals* globals = SuperGlobals()) globals->SetMainHWND(id ? static_cast<uint64_t>(getpid()) : 0);
  }

  int WakeFd() override {
    if (signalFd_ < 0) {
      sigset_t set = WindowSignals();
      signalFd_ = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    }
    return signalFd_;
  }

  Wake ReadWake() override {
    signalfd_siginfo info{};
    if (read(signalFd_, &info, sizeof info) != sizeof info) return Wake::kNone;
    Trace(kTag, "Signal %u", info.ssi_signo);
    return info.ssi_signo == SIGUSR1 ? Wake::kShow : Wake::kQuit;
  }

 private:
  int signalFd_ = -1;
};

// True when `pid` runs this same program (a killed instance's number may
// have gone to another program since).
bool RunsThisProgram(pid_t pid) {
  std::error_code ec;
  auto theirs = std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/exe", ec);
  if (ec) return false;
  return theirs == std::filesystem::read_symlink("/proc/self/exe", ec);
}

}  // namespace

void BlockWindowSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

ui::DesktopHost& InstanceDesktopHost() {
  static Host host;
  return host;
}

int32_t RunInteractiveInstance(CSuperGlobals* globals) {
  const pid_t running = static_cast<pid_t>(globals->GetMainHWND());
  if (running > 0 && running != getpid() && RunsThisProgram(running) && kill(running, SIGUSR1) == 0) {
    Trace(kTag, "Main window of process %d brought to the front", running);
    return 0;
  }
  return ui::RunMainWindow(InstanceDesktopHost());
}

}  // namespace qb::app
