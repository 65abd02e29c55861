#include "conformance/target.h"

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <thread>

#include "support/test_home.h"

#ifndef QB_DOKAN_TEST_SERVER
#define QB_DOKAN_TEST_SERVER ""
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

// Maps a simulated device of its own as drive T and unmounts it at the end
// of the run, also when a case failed.
class MountedDrive {
 public:
  MountedDrive() {
    const fs::path bin = qbtest::BinDir();
    const std::string simdev = (bin / "quillbox-simdev").string();
    const std::string quillbox = (bin / "quillbox").string();
    if (RunQuiet(simdev + " create conf --name 'Conformance Device' --serial CONF1 "
                 "--storage internal:Internal:4294967296") != 0) {
      throw std::runtime_error("cannot create the simulated device");
    }
    mountPoint_ = home_.Path() / "drives" / "T";
    if (RunQuiet(quillbox + " /mn 'Conformance Device' /si 1 T:") != 0 || !IsMounted(mountPoint_)) {
      throw std::runtime_error("cannot map the simulated device as T:");
    }
    backing_ = home_.Path() / "devices" / "conf" / "internal";
  }
  ~MountedDrive() {
    const std::string quillbox = (qbtest::BinDir() / "quillbox").string();
    if (RunQuiet(quillbox + " /u T:") != 0 || IsMounted(mountPoint_)) {
      RunQuiet("fusermount3 -u -z '" + mountPoint_.string() + "'");
    }
  }
  const fs::path& MountPoint() const { return mountPoint_; }
  const fs::path& Backing() const { return backing_; }

 private:
  qbtest::ScopedHome home_;
  fs::path mountPoint_;
  fs::path backing_;
};

// The drive layer's test server on letter M, removed at the end of the run.
class MountedMemFs {
 public:
  MountedMemFs() {
    mountPoint_ = home_.Path() / "drives" / "M";
    pid_ = ::fork();
    if (pid_ == 0) {
      const char* server = QB_DOKAN_TEST_SERVER;
      ::execl(server, server, "M", "/dev/null", static_cast<char*>(nullptr));
      _exit(127);
    }
    // The server mounts in the background; wait for the mount, bounded.
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!IsMounted(mountPoint_)) {
      if (std::chrono::steady_clock::now() > limit) throw std::runtime_error("test server did not mount");
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
  ~MountedMemFs() {
    RunQuiet("fusermount3 -u -z '" + mountPoint_.string() + "'");
    int status = 0;
    ::waitpid(pid_, &status, 0);
  }
  const fs::path& MountPoint() const { return mountPoint_; }

 private:
  qbtest::ScopedHome home_;
  fs::path mountPoint_;
  pid_t pid_ = -1;
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
