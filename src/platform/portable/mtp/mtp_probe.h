#pragma once
// What a device tells of itself in a handful of PTP requests on its USB
// interface, without a libmtp session: its names, serial number, protocol
// and number of storages. Opening the device with libmtp for the same costs
// some twenty-five requests (property descriptions for every format among
// them), which a process that only looks the device up for another one
// does not need.
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace qb::portable::mtp {

// The parts of a PTP DeviceInfo dataset that name the device.
struct PtpDeviceInfo {
  std::string vendorExtension;  // e.g. "microsoft.com: 1.0; android.com: 1.0;"
  std::vector<uint16_t> operations;
  std::vector<uint16_t> deviceProperties;
  std::string manufacturer;
  std::string model;
  std::string deviceVersion;
  std::string serialNumber;
};

// Reads a DeviceInfo dataset; false when it is cut short or malformed.
bool ParsePtpDeviceInfo(const uint8_t* data, size_t size, PtpDeviceInfo* info);
// Reads a PTP string (count of UTF-16 units with the terminating zero, then
// the units); *used is the number of bytes it took. False when cut short.
bool ParsePtpString(const uint8_t* data, size_t size, std::string* text, size_t* used);

// One property value of an object as a device lists it: integers in
// `number` (signed ones as their two's complement; of 128-bit ones the low
// 64 bits, as libmtp keeps them), strings in `text`; arrays are read past
// and left empty.
struct PtpPropValue {
  uint16_t type = 0;  // PTP data type code
  uint64_t number = 0;
  std::string text;
};
// An object's properties by property code.
using PtpObjectProps = std::map<uint16_t, PtpPropValue>;
// Objects in the order the list names them first, with their properties.
using PtpObjectList = std::vector<std::pair<uint32_t, PtpObjectProps>>;

// Reads an ObjectPropList dataset; false when it is cut short, names a data
// type PTP does not have, or holds more elements than its size allows.
bool ParseObjectPropList(const uint8_t* data, size_t size, PtpObjectList* objects);

struct ProbedDevice {
  std::string friendlyName;  // the device's own name; empty when it has none
  std::string manufacturer;
  std::string model;
  std::string serialNumber;
  std::string firmwareVersion;
  bool speaksMtp = false;  // a vendor extension of microsoft.com or android.com
  bool android = false;
  size_t storages = 0;     // storages with media in them
};

// Asks the device at `bus`/`address` (OpenSession, GetDeviceInfo, the
// friendly name, GetStorageIDs, CloseSession). False when it cannot be
// claimed (another program holds it) or does not answer as PTP; nothing of
// the device is changed either way.
bool ProbeDevice(uint32_t bus, uint32_t address, ProbedDevice* device);

// Reads the top level of every storage of the device at `bus`/`address`,
// every property of every object, in one request of a session of its own
// (OpenSession, GetObjPropList for the children of the root, CloseSession):
// listing it through libmtp costs two requests an object. False when the
// device cannot be claimed or does not give such a list; nothing of the
// device is changed either way.
bool ReadTopLevel(uint32_t bus, uint32_t address, PtpObjectList* objects);

}  // namespace qb::portable::mtp
