// The property files of a simulated device as a user may edit them. The
// input holds up to four files separated by lines "%%": device.ini, the
// .storage.ini of two storages, faults.ini.
#include <cstdlib>
#include <filesystem>

#include "fuzz_support.h"
#include "platform/portable/sim_devices.h"

namespace sim = qb::portable::sim;
namespace fs = std::filesystem;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::vector<std::string> files = qbfuzz::Split(text, "\n%%\n");
  const fs::path device = qbfuzz::Home() / "fuzzdev";
  const fs::path paths[] = {device / sim::kDeviceFile, device / "internal" / sim::kStorageFile,
                            device / "sd" / sim::kStorageFile, device / sim::kFaultsFile};
  std::error_code ec;
  fs::remove_all(device, ec);
  fs::create_directories(device / "internal", ec);
  fs::create_directories(device / "sd", ec);
  for (size_t i = 0; i < files.size() && i < std::size(paths); ++i)
    if (!qbfuzz::WriteFile(paths[i], files[i])) std::abort();

  sim::DeviceSpec found;
  std::string error;
  if (sim::ReadDevice(device, &found, &error)) {
    if (found.powerLevel > 100 || found.storages.size() > 2) std::abort();
    sim::SimPnpId(found);
    sim::IsValidFolderName(found.friendlyName);
  }
  sim::ReadFaults(device);
  return 0;
}
