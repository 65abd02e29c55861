// USB device facts from sysfs.
#include "platform/portable/mtp/mtp_usb.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>

namespace fs = std::filesystem;

namespace qb::portable::mtp {
namespace {

// $QUILLBOX_USB_DEVICES_ROOT, else sysfs: the MTP emulator keeps a folder
// of that layout for the devices it presents.
std::string DefaultRoot() {
  const char* root = std::getenv(kUsbDevicesRootVariable);
  return root && *root ? root : kSysUsbDevices;
}

std::mutex g_rootMutex;  // leaf
std::string g_root = DefaultRoot();

std::string ReadLine(const fs::path& file) {
  std::ifstream in(file);
  std::string line;
  if (in) std::getline(in, line);
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r' || line.back() == ' ')) line.pop_back();
  return line;
}

bool ReadNumber(const fs::path& file, int base, uint32_t* out) {
  std::string text = ReadLine(file);
  if (text.empty()) return false;
  try {
    size_t used = 0;
    unsigned long v = std::stoul(text, &used, base);
    if (used != text.size() || v > 0xFFFFFFFFul) return false;
    *out = static_cast<uint32_t>(v);
    return true;
  } catch (...) {
    return false;
  }
}

}  // namespace

std::string UsbDevicesRoot() {
  std::lock_guard<std::mutex> l(g_rootMutex);
  return g_root;
}

void SetUsbDevicesRoot(const std::string& root) {
  std::lock_guard<std::mutex> l(g_rootMutex);
  g_root = root.empty() ? DefaultRoot() : root;
}

bool FindUsbPort(const std::string& root, uint32_t busNumber, uint32_t deviceAddress, UsbPortInfo* info) {
  std::error_code ec;
  for (fs::directory_iterator it(root, ec), end; !ec && it != end; it.increment(ec)) {
    const fs::path dir = it->path();
    uint32_t bus = 0, address = 0, vid = 0, pid = 0;
    if (!ReadNumber(dir / "busnum", 10, &bus) || !ReadNumber(dir / "devnum", 10, &address)) continue;
    if (bus != busNumber || address != deviceAddress) continue;
    if (!ReadNumber(dir / "idVendor", 16, &vid) || !ReadNumber(dir / "idProduct", 16, &pid)) continue;
    if (info) {
      info->busNumber = bus;
      info->deviceAddress = address;
      info->vendorId = static_cast<uint16_t>(vid);
      info->productId = static_cast<uint16_t>(pid);
      info->serial = ReadLine(dir / "serial");
      info->manufacturer = ReadLine(dir / "manufacturer");
      info->product = ReadLine(dir / "product");
    }
    return true;
  }
  return false;
}

bool UsbPortPresent(const std::string& root, uint32_t busNumber, uint32_t deviceAddress, uint16_t vendorId,
                    uint16_t productId) {
  UsbPortInfo info;
  return FindUsbPort(root, busNumber, deviceAddress, &info) && info.vendorId == vendorId &&
         info.productId == productId;
}

}  // namespace qb::portable::mtp
