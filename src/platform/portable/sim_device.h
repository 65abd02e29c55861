#pragma once
// The simulated back end of the object model: an IPortableDevice over a
// device folder (see sim_devices.h for the layout).
#include <memory>
#include <string>
#include <vector>

#include "platform/portable/portable.h"

namespace qb::portable::sim {

// PnP ids of the connected simulated devices, ordered by folder name.
std::vector<std::string> ConnectedPnpIds();
// True when `pnpId` names a simulated device (bus "simdev").
bool IsSimPnpId(const std::string& pnpId);
// Friendly name, manufacturer, description of a simulated device.
HRESULT SimDeviceText(const std::string& pnpId, int which, std::string* text);
inline constexpr int kTextFriendlyName = 0;
inline constexpr int kTextManufacturer = 1;
inline constexpr int kTextDescription = 2;

std::unique_ptr<IPortableDevice> CreateSimPortableDevice();

}  // namespace qb::portable::sim
