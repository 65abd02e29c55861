#include "mtp_emulator/usb_descriptors.h"

#include "mtp_emulator/ptp_data.h"
#include "mtp_emulator/usb_bulk.h"

namespace qb::mtpemu {
namespace {

std::vector<uint8_t> Utf16Descriptor(const std::string& text) {
  std::vector<uint8_t> d = {0, 3};
  for (unsigned char c : text) {
    d.push_back(c < 0x80 ? c : '?');
    d.push_back(0);
    if (d.size() >= 254) break;
  }
  d[0] = static_cast<uint8_t>(d.size());
  return d;
}

}  // namespace

std::vector<uint8_t> DeviceDescriptor() {
  return {18,   1,    0x00, 0x02,  // USB 2.0
          0,    0,    0,    64,    // class per interface, control packets of 64
          kVendorId & 0xFF, kVendorId >> 8, kProductId & 0xFF, kProductId >> 8,
          0x00, 0x01,              // device release 1.00
          1,    2,    3,    1};    // strings: manufacturer, product, serial; one configuration
}

std::vector<uint8_t> ConfigDescriptor(bool namedInterface) {
  std::vector<uint8_t> d = {9, 2, 0, 0, 1, 1, 0, 0x80, 250,  // bus powered, 500 mA
                            9, 4, 0, 0, 3, 0xFF, 0xFF, 0, 0,  // vendor-specific, no name
                            7, 5, kBulkIn, 2, kPacketSize & 0xFF, kPacketSize >> 8, 0,
                            7, 5, kBulkOut, 2, kPacketSize & 0xFF, kPacketSize >> 8, 0,
                            7, 5, kInterruptIn, 3, 64, 0, 6};
  if (namedInterface) d[9 + 8] = 4;  // iInterface: string 4
  d[2] = static_cast<uint8_t>(d.size());
  d[3] = static_cast<uint8_t>(d.size() >> 8);
  return d;
}

std::vector<uint8_t> StringDescriptor(uint8_t index, const UsbStrings& strings) {
  switch (index) {
    case 0: return {4, 3, 0x09, 0x04};  // US English
    case 1: return Utf16Descriptor(strings.manufacturer);
    case 2: return Utf16Descriptor(strings.product);
    case 3: return Utf16Descriptor(strings.serial);
    case 4: return strings.interfaceName.empty() ? std::vector<uint8_t>{} : Utf16Descriptor(strings.interfaceName);
    case 0xEE: {
      std::vector<uint8_t> d = Utf16Descriptor("MSFT100");
      d.push_back(kOsVendorCode);
      d.push_back(0);
      d[0] = static_cast<uint8_t>(d.size());
      return d;
    }
    default: return {};
  }
}

std::vector<uint8_t> OsFeatureDescriptor(uint16_t wIndex) {
  ptp::DataWriter w;
  if (wIndex == 4) {
    w.U32(40);
    w.U16(0x0100);
    w.U16(4);
    w.U8(1);  // one function
    for (int i = 0; i < 7; ++i) w.U8(0);
    w.U8(0);  // first interface
    w.U8(1);
    for (char c : std::string("MTP\0\0\0\0\0", 8)) w.U8(static_cast<uint8_t>(c));
    for (int i = 0; i < 8 + 6; ++i) w.U8(0);
  } else if (wIndex == 5) {
    w.U32(10);
    w.U16(0x0100);
    w.U16(5);
    w.U16(0);  // no properties
  }
  return std::move(w.Bytes());
}

}  // namespace qb::mtpemu
