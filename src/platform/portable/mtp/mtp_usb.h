#pragma once
// What the kernel knows of a USB device, read from sysfs without touching
// the device: ids, serial, manufacturer and product strings, and whether it
// is still plugged in at the same bus address. Lets the device list and the
// removal check work while another call holds the device.
#include <cstdint>
#include <string>

namespace qb::portable::mtp {

inline constexpr const char* kSysUsbDevices = "/sys/bus/usb/devices";

// The folder the back end reads: $QUILLBOX_USB_DEVICES_ROOT (the MTP
// emulator's folder of its devices) or kSysUsbDevices unless set (tests
// point it at a folder of their own; empty sets the default back).
inline constexpr const char* kUsbDevicesRootVariable = "QUILLBOX_USB_DEVICES_ROOT";
std::string UsbDevicesRoot();
void SetUsbDevicesRoot(const std::string& root);

struct UsbPortInfo {
  uint32_t busNumber = 0;
  uint32_t deviceAddress = 0;
  uint16_t vendorId = 0;
  uint16_t productId = 0;
  std::string serial;
  std::string manufacturer;
  std::string product;
};

// The device at `busNumber`/`deviceAddress` under `root` (a folder laid out
// as /sys/bus/usb/devices); false when none is there.
bool FindUsbPort(const std::string& root, uint32_t busNumber, uint32_t deviceAddress, UsbPortInfo* info);
// True while a device with these ids sits at that address.
bool UsbPortPresent(const std::string& root, uint32_t busNumber, uint32_t deviceAddress, uint16_t vendorId,
                    uint16_t productId);

}  // namespace qb::portable::mtp
