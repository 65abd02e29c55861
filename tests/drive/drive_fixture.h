#pragma once
// A drive served by qb_drive_server over a simulated device in a fresh
// home, used from other processes through the shell. The drive is always
// removed again, also when a test fails.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "drive_harness.h"
#include "platform/portable/sim_devices.h"
#include "platform/system/process_spawn.h"
#include "support/test_home.h"

namespace qbtest {

class DriveTest : public ::testing::Test {
 protected:
  static constexpr char kLetter = 'Q';
  static constexpr const char* kDeviceName = "Drive Phone";
  static constexpr int kDeviceLimitMs = 10000;  // a change on its way to the device

  void SetUp() override;
  void TearDown() override;

  // The storage folder of the simulated device (its content on disk).
  std::filesystem::path Storage() const { return device_ / "internal"; }
  void WriteDeviceFile(const std::string& rel, const std::string& data);
  // A file of `size` bytes of varied content (fast to make).
  void MakeDeviceFile(const std::string& rel, size_t size, unsigned seed);
  // Starts the server with extra arguments; true once the drive is mounted.
  bool Mount(const std::vector<std::string>& extra = {});
  // Removes the drive and waits for the server; its exit code (-1: killed).
  int Unmount();
  std::string Drive() const { return MountPath(kLetter); }
  // Runs a shell command with the drive and the device in $D and $S.
  int Sh(const std::string& command, std::string* output = nullptr, int limitMs = kCommandLimitMs);
  void SetFaults(const qb::portable::sim::Faults& faults);
  std::string TraceText() const;
  // True once the device's file holds exactly `data` / once it is gone
  // (bounded by kDeviceLimitMs).
  bool DeviceHolds(const std::string& rel, const std::string& data);
  bool DeviceLacks(const std::string& rel);
  std::filesystem::path CacheFolder() const;

  ScopedHome home_;
  std::filesystem::path device_;
  qb::sys::ChildProcess server_;
  bool mounted_ = false;
  std::string traceFile_;
};

}  // namespace qbtest
