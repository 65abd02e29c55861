#pragma once
// The device calls of the mapping, over the process's device-access object:
// opening the device (registering for its object events), its storages, its
// own properties and the listing into the tree.
#include <cstdint>
#include <string>
#include <vector>

#include "app/storage_choice.h"
#include "device/wpd_callbacks.h"

class CDirectory;
class CWPDHelperBase;

namespace qb::app {

// The device-access object of the process (null before it is started).
CWPDHelperBase* DeviceAccess();

// Registers `callback` for the device's events, which opens the device.
HRESULT OpenDevice(const std::string& deviceId, WpdEventCallbackFn callback);
void CloseDevice();

// The device's storages without the ignored ones (names split as the
// profile's IgnoredStoragesList).
HRESULT ReadStorages(const std::string& ignoredList, std::vector<StorageInfo>* storages);

// "WPD_DEVICE_POWER_LEVEL", "WPD_DEVICE_FRIENDLY_NAME", "WPD_DEVICE_TYPE";
// -1 / empty / 0 when the device did not report them.
struct DeviceProps {
  int powerLevel = -1;
  std::string friendlyName;
  uint32_t deviceType = 0;
};
HRESULT ReadDeviceProps(DeviceProps* props);

// Lists the storage (0: every storage) into the tree.
HRESULT ListDevice(CDirectory* tree, int storageIndex, uint32_t structure, uint32_t shallow);

// Splits a profile list at blanks, ";", tabs and line feeds.
std::vector<std::string> SplitProfileList(const std::string& text);

}  // namespace qb::app
