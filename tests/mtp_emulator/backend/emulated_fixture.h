#pragma once
// A simulated device served by the MTP emulator in a fresh home, for tests
// of the libmtp back end: the test program runs on the emulator's USB
// library (CTest sets LD_LIBRARY_PATH), the emulator is a child process
// that is always stopped.
#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/portable/portable.h"
#include "support/test_home.h"

namespace qbtest {

class EmulatedMtpDevice : public ::testing::Test {
 public:
  static constexpr bool kMtp = true;

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

  // Starts the emulator, opens the device and lists its storages into
  // mtp_, content_ and storages_ (fatal failure when any step fails; call
  // through ASSERT_NO_FATAL_FAILURE). TearDown closes the device.
  void StartAndOpen(const std::vector<std::string>& options = {});
  // How often the emulated device received each operation code so far.
  std::map<uint16_t, uint64_t> OperationCounts() const;

  std::filesystem::path Storage(const std::string& rel) const { return device_ / "internal" / rel; }

  std::unique_ptr<ScopedHome> home_;
  std::filesystem::path device_;
  pid_t emulator_ = -1;
  std::unique_ptr<qb::portable::IPortableDevice> mtp_;
  std::string pnpId_;
  std::shared_ptr<qb::portable::IPortableDeviceContent> content_;
  std::vector<std::string> storages_;
};

// Operations counted in `after` but not in `before`, all codes together.
uint64_t OperationsBetween(const std::map<uint16_t, uint64_t>& before, const std::map<uint16_t, uint64_t>& after);
// How often operation `code` was counted in `counts`.
uint64_t CountOf(const std::map<uint16_t, uint64_t>& counts, uint16_t code);

// Names of the children of `parentId` ("" on failure).
std::vector<std::string> ChildNames(qb::portable::IPortableDeviceContent* content, const std::string& parentId,
                                    std::vector<std::string>* ids = nullptr);
// The child of `parentId` called `name`; empty when none.
std::string ChildId(qb::portable::IPortableDeviceContent* content, const std::string& parentId,
                    const std::string& name);
std::string FileBytes(const std::filesystem::path& file);
// The whole data of object `id`, read in 64 KiB blocks; *result the last
// read's answer.
std::string ReadAll(qb::portable::IPortableDeviceContent* content, const std::string& id, HRESULT* result = nullptr);
// Creates file `name` under `parentId` with `data`; *newId its id.
HRESULT Upload(qb::portable::IPortableDeviceContent* content, const std::string& parentId, const std::string& name,
               const std::string& data, std::string* newId);

}  // namespace qbtest
