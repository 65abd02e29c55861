#pragma once
// What the end-to-end tests share: a fresh home with the demo device, the
// drives they map (always unmounted again, also when a test fails), the
// serving instance started by the test itself, and the mount table.
#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/run_process.h"
#include "support/test_home.h"

namespace qbtest {

using namespace std::chrono_literals;

// A fresh QUILLBOX_HOME with the install folder recorded (so that instances
// can start children) and the demo device created.
class E2eHome {
 public:
  E2eHome();
  const std::filesystem::path& Path() const { return home_.Path(); }
  // Writes values into the demo device's profile (creating it).
  void WriteDemoProfile(const std::vector<std::string>& valueLines);
  // The device id of the demo device ("" when it is not listed).
  std::string DemoDeviceId();

 private:
  ScopedHome home_;
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

// The text of a file (empty when it cannot be read).
std::string ReadText(const std::filesystem::path& file);
// The names in a folder, sorted.
std::vector<std::string> ListNames(const std::filesystem::path& folder);

}  // namespace qbtest
