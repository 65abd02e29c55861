#pragma once
// The WPD properties of MTP things, built from plain facts read off the
// device: the device object, storages (functional objects) and content
// objects. Pure: no libmtp here, so every mapping is tested without a device.
#include <cstdint>
#include <string>

#include "platform/portable/portable.h"

namespace qb::portable::mtp {

struct MtpDeviceFacts {
  std::string friendlyName;
  std::string manufacturer;
  std::string model;
  std::string serialNumber;
  std::string firmwareVersion;
  std::string protocol;  // "MTP: 1.00" or "PTP: 1.00"
  uint32_t deviceType = WPD_DEVICE_TYPE_GENERIC;
  bool hasPowerLevel = false;
  uint32_t powerLevel = 0;  // percent
};

struct MtpStorageFacts {
  uint32_t id = 0;
  uint16_t storageType = 0;
  uint16_t filesystemType = 0;
  uint16_t accessCapability = 0;
  uint64_t maxCapacity = 0;
  uint64_t freeSpaceInBytes = 0;
  uint64_t freeSpaceInObjects = 0;
  std::string description;
  std::string volumeIdentifier;
};

struct MtpObjectFacts {
  uint32_t handle = 0;
  uint32_t parentHandle = 0;
  uint32_t storageId = 0;
  std::string fileName;
  uint64_t size = 0;
  uint16_t formatCode = 0x3000;
  bool hasModified = false;
  int64_t modified = 0;  // time_t
  bool hasCreated = false;
  int64_t created = 0;  // time_t
  std::string persistentId;
  bool hasProtection = false;
  uint16_t protectionStatus = 0;  // MTP: 0 none, 1 read-only, 0x8002/0x8003 read-only data
  bool hasHidden = false;
  bool hidden = false;
};

// "MTP: 1.00" for a device with an MTP vendor extension, else "PTP: 1.00".
std::string ProtocolText(bool hasMtpExtension);
// The name a device is shown by: its own friendly name, else its model,
// else the USB product string.
std::string DeviceName(const std::string& friendlyName, const std::string& model, const std::string& usbProduct);
// A phone when the device names the Android extension, a camera for a plain
// PTP device, else a media player (MTP's first use).
uint32_t DeviceTypeFor(bool hasMtpExtension, bool hasAndroidExtension);
// Battery level in percent from libmtp's (maximum, current); false when the
// device gave no maximum.
bool PowerPercent(uint8_t maximum, uint8_t current, uint32_t* percent);
// The storage's display name: its description, else its volume id, else
// "Storage XXXXXXXX".
std::string StorageName(const MtpStorageFacts& s);

void BuildDeviceValues(const MtpDeviceFacts& d, PortableDeviceValues* v);
void BuildStorageValues(const MtpStorageFacts& s, const std::string& deviceSerial, PortableDeviceValues* v);
// `storageAccess` is the MTP access capability of the object's storage.
void BuildObjectValues(const MtpObjectFacts& o, uint16_t storageAccess, PortableDeviceValues* v);

// The properties an object can be asked to change: the file name, the
// dates, can-delete (protection status) and hidden.
bool IsWritableObjectKey(const PROPERTYKEY& key);

// `keys` null: everything; else the asked keys that `all` holds, S_FALSE
// when some were missing.
HRESULT SelectValues(const PortableDeviceValues& all, const KeyCollection* keys, PortableDeviceValues* out);

// The parameters of an object event from the object's values (see
// IPortableDeviceEventCallback); `objectValues` may be nearly empty for a
// removed object of which only the id is known.
PortableDeviceValues ObjectEventParameters(const GUID& eventId, const std::string& pnpId,
                                           const PortableDeviceValues& objectValues);
// WPD_EVENT_DEVICE_REMOVED: the event id and the PnP id only.
PortableDeviceValues DeviceRemovedParameters(const std::string& pnpId);

}  // namespace qb::portable::mtp
