#pragma once
// A simulated device served by the MTP emulator in a fresh home, for tests
// of the libmtp back end: the test program runs on the emulator's USB
// library (CTest sets LD_LIBRARY_PATH), the emulator is a child process
// that is always stopped.
#include <gtest/gtest.h>
#include <sys/types.h>

#include <filesystem>
#include <memory>
#include <string>

#include "platform/portable/portable.h"
#include "support/test_home.h"

namespace qbtest {

class EmulatedMtpDevice : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Starts the emulator for the demo device; false (with a failure) when it
  // does not answer within 20 s.
  bool StartEmulator(const std::vector<std::string>& options = {});
  void StopEmulator();
  // The PnP id of the emulated device in the device list; empty when absent.
  std::string FindMtpDevice();
  // Opens the emulated device through the object model.
  std::unique_ptr<qb::portable::IPortableDevice> OpenDevice(std::string* pnpId = nullptr);

  std::filesystem::path Storage(const std::string& rel) const { return device_ / "internal" / rel; }

  std::unique_ptr<ScopedHome> home_;
  std::filesystem::path device_;
  pid_t emulator_ = -1;
};

// Names of the children of `parentId` ("" on failure).
std::vector<std::string> ChildNames(qb::portable::IPortableDeviceContent* content, const std::string& parentId,
                                    std::vector<std::string>* ids = nullptr);
// The child of `parentId` called `name`; empty when none.
std::string ChildId(qb::portable::IPortableDeviceContent* content, const std::string& parentId,
                    const std::string& name);
std::string FileBytes(const std::filesystem::path& file);

}  // namespace qbtest
