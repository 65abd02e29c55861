#include "conformance/target.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "support/test_home.h"

#ifndef QB_DOKAN_TEST_SERVER
#define QB_DOKAN_TEST_SERVER ""
#endif
#ifndef QB_DRIVE_SERVER
#define QB_DRIVE_SERVER ""
#endif

namespace fs = std::filesystem;

namespace qbconf {
namespace {

int RunQuiet(const std::string& command) {
  int status = std::system((command + " >/dev/null 2>&1").c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool IsMounted(const fs::path& point) {
  std::ifstream mounts("/proc/self/mounts");
  std::string device, where;
  std::string rest;
  while (mounts >> device >> where && std::getline(mounts, rest)) {
    if (where == point.string()) return true;
  }
  return false;
}

// A server process that mounts a drive on `letter`; unmounted and waited for
// at the end of the run, also when a case failed.
class ServedMount {
 public:
  ServedMount(const fs::path& home, char letter, std::vector<std::string> argv) {
    mountPoint_ = home / "drives" / std::string(1, letter);
    pid_ = ::fork();
    if (pid_ == 0) {
      std::vector<char*> args;
      for (auto& a : argv) args.push_back(a.data());
      args.push_back(nullptr);
      ::execv(args[0], args.data());
      _exit(127);
    }
    // The server mounts in the background; wait for the mount, bounded.
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!IsMounted(mountPoint_)) {
      int status = 0;
      if (std::chrono::steady_clock::now() > limit || ::waitpid(pid_, &status, WNOHANG) == pid_) {
        throw std::runtime_error("the server did not mount " + mountPoint_.string());
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
  ~ServedMount() {
    if (RunQuiet("fusermount3 -u '" + mountPoint_.string() + "'") != 0) {
      RunQuiet("fusermount3 -u -z '" + mountPoint_.string() + "'");
    }
    // Uploads may still finish at the unmount; then the server must end.
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    int status = 0;
    while (::waitpid(pid_, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > limit) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, &status, 0);
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
  const fs::path& MountPoint() const { return mountPoint_; }

 private:
  fs::path mountPoint_;
  pid_t pid_ = -1;
};

// A simulated device of its own, served as drive T by the drive's server.
class MountedDrive {
 public:
  MountedDrive() {
    const std::string simdev = (qbtest::BinDir() / "quillbox-simdev").string();
    if (RunQuiet(simdev + " create conf --name 'Conformance Device' --serial CONF1 "
                 "--storage internal:Internal:8589934592") != 0) {
      throw std::runtime_error("cannot create the simulated device");
    }
    backing_ = home_.Path() / "devices" / "conf" / "internal";
    std::vector<std::string> server{QB_DRIVE_SERVER, "T", "Conformance Device"};
    // QB_CONFORMANCE_TRACE=<file>: the drive's trace log, for a failure's story.
    if (const char* trace = std::getenv("QB_CONFORMANCE_TRACE")) server.insert(server.end(), {"--trace", trace});
    served_ = std::make_unique<ServedMount>(home_.Path(), 'T', server);
  }
  const fs::path& MountPoint() const { return served_->MountPoint(); }
  const fs::path& Backing() const { return backing_; }

 private:
  qbtest::ScopedHome home_;
  fs::path backing_;
  std::unique_ptr<ServedMount> served_;
};

// The drive layer's test server on letter M.
class MountedMemFs {
 public:
  MountedMemFs()
      : served_(home_.Path(), 'M', std::vector<std::string>{QB_DOKAN_TEST_SERVER, "M", "/dev/null"}) {}
  const fs::path& MountPoint() const { return served_.MountPoint(); }

 private:
  qbtest::ScopedHome home_;
  ServedMount served_;
};

struct Run {
  Target target;
  std::unique_ptr<qbtest::ScopedHome> plainHome;
  std::unique_ptr<MountedDrive> drive;
  std::unique_ptr<MountedMemFs> memFs;
};

Run* made = nullptr;

Run& TheRun() {
  static Run* run = [] {
    auto* r = new Run;
    const char* kind = std::getenv("QB_CONFORMANCE_KIND");
    if (kind && std::string(kind) == "drive") {
      r->drive = std::make_unique<MountedDrive>();
      r->target.kind = Kind::kDrive;
      r->target.root = r->drive->MountPoint();
      r->target.backing = r->drive->Backing();
    } else if (kind && std::string(kind) == "memfs") {
      r->memFs = std::make_unique<MountedMemFs>();
      r->target.kind = Kind::kMemFs;
      r->target.root = r->memFs->MountPoint();
    } else {
      r->plainHome = std::make_unique<qbtest::ScopedHome>();
      r->target.root = r->plainHome->Path() / "plain";
      fs::create_directories(r->target.root);
    }
    made = r;
    return r;
  }();
  return *run;
}

// Unmounts at process exit, after every case ran; a run that only listed
// the cases never mounted anything.
struct Teardown {
  ~Teardown() {
    if (!made) return;
    made->drive.reset();
    made->memFs.reset();
  }
} teardown;

}  // namespace

const Target& CurrentTarget() { return TheRun().target; }

fs::path FreshFolder(const std::string& name) {
  fs::path folder = CurrentTarget().root / name;
  std::error_code ec;
  fs::remove_all(folder, ec);
  fs::create_directory(folder);
  return folder;
}

}  // namespace qbconf
