#include "drive_fixture.h"

#include <signal.h>

#include <fstream>
#include <sstream>

#include "platform/dokan/dokan.h"
#include "platform/dokan/dokan_linux.h"
#include "support/files.h"

namespace qbtest {

namespace sim = qb::portable::sim;

void DriveTest::SetUp() {
  sim::DeviceSpec spec;
  spec.folder = "drivephone";
  spec.friendlyName = kDeviceName;
  spec.serialNumber = "DP1";
  sim::StorageSpec storage;
  storage.folder = "internal";
  storage.name = "Internal storage";
  storage.capacity = 64ull << 30;
  storage.freeSpace = 10ull << 30;
  spec.storages = {storage};
  std::string error;
  ASSERT_TRUE(sim::WriteDevice(spec, &error)) << error;
  device_ = sim::DeviceFolder(spec.folder);
  traceFile_ = (home_ / "drive-trace.log").string();
}

void DriveTest::TearDown() { Unmount(); }

void DriveTest::WriteDeviceFile(const std::string& rel, const std::string& data) {
  std::filesystem::create_directories((Storage() / rel).parent_path());
  std::ofstream out(Storage() / rel, std::ios::binary);
  out << data;
}

bool DriveTest::DeviceHolds(const std::string& rel, const std::string& data) {
  return WaitUntil([&] { return std::filesystem::exists(Storage() / rel) && ReadText(Storage() / rel) == data; },
                   kDeviceLimitMs);
}

bool DriveTest::DeviceLacks(const std::string& rel) {
  return WaitUntil([&] { return !std::filesystem::exists(Storage() / rel); }, kDeviceLimitMs);
}

void DriveTest::MakeDeviceFile(const std::string& rel, size_t size, unsigned seed) {
  std::string data(size, '\0');
  uint32_t x = seed * 2654435761u + 1;
  for (size_t i = 0; i < size; ++i) {
    x = x * 1664525u + 1013904223u;
    data[i] = static_cast<char>(x >> 24);
  }
  WriteDeviceFile(rel, data);
}

bool DriveTest::Mount(const std::vector<std::string>& extra) {
  std::vector<std::string> argv{QB_DRIVE_SERVER, std::string(1, kLetter), kDeviceName, "--trace", traceFile_};
  argv.insert(argv.end(), extra.begin(), extra.end());
  if (!qb::sys::SpawnProcess(argv, {}, &server_)) return false;
  mounted_ = true;
  int code = 0;
  return WaitUntil([&] { return IsMounted(kLetter) || server_.Wait(0, &code); }, kMountLimitMs) &&
         IsMounted(kLetter);
}

int DriveTest::Unmount() {
  if (!mounted_) return 0;
  mounted_ = false;
  const std::string mountPoint = std::string(1, kLetter) + ":\\";
  DokanRemoveMountPoint(mountPoint.c_str());
  int code = -1;
  bool killed = false;
  if (!server_.Wait(10000, &code, &killed)) {
    qb::dokan::ForceRemoveMountPoint(kLetter);
    kill(server_.Pid(), SIGKILL);
    server_.Wait(5000, &code, &killed);
    return -1;
  }
  return killed ? -1 : code;
}

int DriveTest::Sh(const std::string& command, std::string* output, int limitMs) {
  return RunShell("D=" + Quote(Drive()) + "; S=" + Quote(Storage().string()) + "; " + command, output,
                  limitMs);
}

void DriveTest::SetFaults(const sim::Faults& faults) {
  std::string error;
  ASSERT_TRUE(sim::WriteFaults(device_, faults, &error)) << error;
}

std::string DriveTest::TraceText() const {
  std::ifstream in(traceFile_);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::filesystem::path DriveTest::CacheFolder() const {
  return home_ / "local" / "Quillbox" / "QUILLBOX_CACHE";
}

}  // namespace qbtest
