#pragma once
// What the end-to-end tests share: a fresh home with the demo device, the
// drives they map (always unmounted again, also when a test fails), the
// serving instance started by the test itself, and the mount table.
#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "app/run_process.h"
#include "support/test_home.h"

namespace qbtest {

using namespace std::chrono_literals;

// How the program reaches the demo device: the simulated back end, or
// libmtp over the MTP emulator's USB (the program then sees only the
// emulated device, whose folder lives in a home of its own).
enum class Backend { kSimulated, kMtp };
std::string BackendName(Backend backend);
// Both back ends, or the simulated one alone when the emulator is not built.
std::vector<Backend> TestedBackends();

// A fresh QUILLBOX_HOME with the install folder recorded (so that instances
// can start children) and the demo device created, served by the MTP
// emulator for Backend::kMtp (stopped again when the home ends).
class E2eHome {
 public:
  explicit E2eHome(Backend backend = Backend::kSimulated);
  ~E2eHome();
  E2eHome(const E2eHome&) = delete;
  E2eHome& operator=(const E2eHome&) = delete;
  const std::filesystem::path& Path() const { return home_.Path(); }
  // Writes values into the demo device's profile (creating it).
  void WriteDemoProfile(const std::vector<std::string>& valueLines);
  // The device id of the demo device ("" when it is not listed).
  std::string DemoDeviceId();
  // The demo device's folder (its storages are subfolders).
  std::filesystem::path DeviceFolder() const;
  // Runs `quillbox-simdev` on the demo device's home (faults, disconnect).
  RunResult Simdev(const std::vector<std::string>& args);
  // True when the device is served (always for the simulated back end).
  bool Ready() const { return ready_; }
  // Serves the device afresh, so that the emulator reads what a test
  // changed in the device's folder (storage sizes); nothing for the
  // simulated back end, which reads them when the device is opened.
  void RestartEmulator();

 private:
  void StartEmulator();
  void StopEmulator();

  ScopedHome home_;
  Backend backend_;
  std::filesystem::path deviceHome_;
  std::map<std::string, std::string> saved_;
  std::unique_ptr<BackgroundProcess> emulator_;
  bool ready_ = true;
};

// <drives root>/<LETTER> of the current home.
std::filesystem::path MountPointOf(char letter);

struct MountEntry {
  std::string fsType, source;
};
std::optional<MountEntry> FindMount(const std::filesystem::path& mountPoint);

// Unmounts the letter when the guard ends: `quillbox /u X:`, then a lazy
// `fusermount3 -u -z` when the drive is still there. Declared after the
// home, so that it runs before the home folder is removed.
class DriveGuard {
 public:
  explicit DriveGuard(char letter) : letter_(letter) {}
  ~DriveGuard();
  DriveGuard(const DriveGuard&) = delete;
  DriveGuard& operator=(const DriveGuard&) = delete;

 private:
  char letter_;
};

// Runs `quillbox` with the arguments (limit 60 s).
RunResult Quillbox(const std::vector<std::string>& args, std::chrono::milliseconds limit = 60s);

// An instance started by the test as the child of a command-line mapping
// would be (/i /e /p /q /l, a bare drive argument), so that the test holds
// its exit code. The mapping-finished event is an eventfd of the test.
class ServingInstance {
 public:
  ServingInstance(const std::string& deviceId, char letter, const std::vector<std::string>& extra = {});
  ~ServingInstance();
  // Waits up to `limit` for the event: the drive answered its first request.
  bool WaitMapped(std::chrono::milliseconds limit = 60s);
  bool Wait(std::chrono::milliseconds limit, int* code) { return process_->Wait(limit, code); }
  void Signal(int sig) { process_->Signal(sig); }
  pid_t Pid() const { return process_->Pid(); }

 private:
  int event_ = -1;
  std::unique_ptr<BackgroundProcess> process_;
};

// Waits for a condition that another process brings about, up to `limit`.
template <class F>
bool WaitFor(F condition, std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(20ms);
  }
  return true;
}

// Runs a shell command with the drive's folder in $D and the device's
// storage folder in $S; output and errors together in `out`.
RunResult Shell(const std::filesystem::path& drive, const std::filesystem::path& storage, const std::string& command,
                std::chrono::milliseconds limit = 120s);

// The text of a file (empty when it cannot be read).
std::string ReadText(const std::filesystem::path& file);
// The names in a folder, sorted.
std::vector<std::string> ListNames(const std::filesystem::path& folder);

}  // namespace qbtest
