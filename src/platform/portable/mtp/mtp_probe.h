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

struct ProbedDevice {
  std::string friendlyName;  // the device's own name; empty when it has none
  std::string manufacturer;
  std::string model;
  std::string serialNumber;
  std::string firmwareVersion;
  bool speaksMtp = false;  // a vendor extension of microsoft.com or android.com
  bool android = false;
  size_t storages = 0;     // storages with media in them
  // The object properties the device supports for each format asked
  // about; formats it would not tell are left out.
  std::map<uint16_t, std::vector<uint16_t>> propertiesOfFormat;
};

// Asks the device at `bus`/`address` (OpenSession, GetDeviceInfo, the
// friendly name, GetStorageIDs, GetObjectPropsSupported for each of
// `formats` when the device has that request, CloseSession). False when it
// cannot be claimed (another program holds it) or does not answer as PTP;
// nothing of the device is changed either way.
bool ProbeDevice(uint32_t bus, uint32_t address, const std::vector<uint16_t>& formats, ProbedDevice* device);

}  // namespace qb::portable::mtp
