#pragma once
// The USB face of the emulated device: its descriptors (one configuration,
// one vendor-specific interface with bulk IN, bulk OUT and interrupt IN
// endpoints) and the Microsoft OS descriptor by which MTP hosts recognise
// an MTP device they do not know by its ids: string descriptor 0xEE
// "MSFT100" naming a vendor request, which answers the compatible id "MTP".
#include <cstdint>
#include <string>
#include <vector>

namespace qb::mtpemu {

// pid.codes' vendor id with its test product id: no real product's ids.
inline constexpr uint16_t kVendorId = 0x1209;
inline constexpr uint16_t kProductId = 0x0001;
inline constexpr uint8_t kBulkIn = 0x81;
inline constexpr uint8_t kBulkOut = 0x02;
inline constexpr uint8_t kInterruptIn = 0x83;
inline constexpr uint8_t kOsVendorCode = 0x54;

struct UsbStrings {
  std::string manufacturer, product, serial;
  // The interface has no name unless one is given: then hosts must find the
  // device through the OS descriptor. (go-mtpfs takes only devices whose
  // interface name holds "MTP", and libmtp takes such a name as enough.)
  std::string interfaceName;
};

std::vector<uint8_t> DeviceDescriptor();
std::vector<uint8_t> ConfigDescriptor(bool namedInterface);
// String descriptor `index` (0: the language list, 0xEE: the OS string);
// empty when there is none.
std::vector<uint8_t> StringDescriptor(uint8_t index, const UsbStrings& strings);
// The answer to the OS vendor request for `wIndex` (4: compatible ids,
// 5: extended properties); empty when unknown.
std::vector<uint8_t> OsFeatureDescriptor(uint16_t wIndex);

}  // namespace qb::mtpemu
