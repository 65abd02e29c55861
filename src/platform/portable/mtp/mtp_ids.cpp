// Object ids, persistent ids and PnP ids of MTP devices.
#include "platform/portable/mtp/mtp_ids.h"

#include <cstdio>

#include "platform/portable/portable.h"
#include "platform/system/wpd_keys.h"

namespace qb::portable::mtp {
namespace {

std::string Hex8(char prefix, uint32_t v) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "%c%08X", prefix, v);
  return buf;
}

bool ParseHex(const std::string& text, size_t digits, uint32_t* out) {
  if (text.size() != digits) return false;
  uint32_t v = 0;
  for (char c : text) {
    int d;
    if (c >= '0' && c <= '9') d = c - '0';
    else if (c >= 'A' && c <= 'F') d = c - 'A' + 10;
    else if (c >= 'a' && c <= 'f') d = c - 'a' + 10;
    else return false;
    v = (v << 4) | static_cast<uint32_t>(d);
  }
  *out = v;
  return true;
}

bool EqualsNoCase(const std::string& a, const char* b) {
  size_t i = 0;
  for (; i < a.size() && b[i]; ++i) {
    char x = a[i], y = b[i];
    if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
    if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
    if (x != y) return false;
  }
  return i == a.size() && b[i] == 0;
}

}  // namespace

std::string StorageObjectId(uint32_t storageId) { return Hex8('s', storageId); }
std::string ContentObjectId(uint32_t handle) { return Hex8('o', handle); }

MtpObjectRef ParseObjectId(const std::string& objectId) {
  MtpObjectRef ref;
  if (objectId == WPD_DEVICE_OBJECT_ID) {
    ref.kind = MtpIdKind::kDevice;
    return ref;
  }
  if (objectId.size() != 9) return ref;
  uint32_t v = 0;
  if (!ParseHex(objectId.substr(1), 8, &v)) return ref;
  if (objectId[0] == 's') ref.kind = MtpIdKind::kStorage;
  else if (objectId[0] == 'o') ref.kind = MtpIdKind::kObject;
  else return ref;
  ref.value = v;
  return ref;
}

std::string ParentObjectId(uint32_t parentHandle, uint32_t storageId) {
  if (parentHandle == 0 || parentHandle == 0xFFFFFFFFu) return StorageObjectId(storageId);
  return ContentObjectId(parentHandle);
}

bool ParentHandleOf(const MtpObjectRef& parent, uint32_t* parentHandle) {
  if (parent.kind == MtpIdKind::kStorage) *parentHandle = 0;
  else if (parent.kind == MtpIdKind::kObject) *parentHandle = parent.value;
  else return false;
  return true;
}

uint32_t SendParentHandle(uint32_t parentHandle) { return parentHandle == 0 ? 0xFFFFFFFFu : parentHandle; }

std::string PersistentIdFallback(const std::string& serial, uint32_t storageId, uint32_t handle) {
  char buf[32];
  std::snprintf(buf, sizeof buf, ":%08X:%08X", storageId, handle);
  return serial + buf;
}

std::string StoragePersistentId(const std::string& serial, uint32_t storageId) {
  char buf[32];
  std::snprintf(buf, sizeof buf, ":%08X", storageId);
  return "STORAGE:" + serial + buf;
}

std::string PnpSerialPart(const std::string& usbSerial, uint32_t busNumber, uint32_t deviceAddress) {
  std::string out;
  for (char c : usbSerial) {
    if (out.size() == 64) break;
    bool bad = c <= ' ' || c > '~' || c == '#' || c == '\\' || c == '/' || c == '&';
    out += bad ? '_' : c;
  }
  bool blank = out.find_first_not_of('_') == std::string::npos;
  if (blank) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%u&%u", busNumber, deviceAddress);
    return buf;
  }
  return out;
}

std::string MakeMtpPnpId(uint16_t vendorId, uint16_t productId, const std::string& serialPart) {
  char product[32];
  std::snprintf(product, sizeof product, "vid_%04x&pid_%04x", vendorId, productId);
  return MakePnpDeviceId("usb", product, serialPart);
}

bool ParseMtpPnpId(const std::string& pnpId, uint16_t* vendorId, uint16_t* productId, std::string* serialPart) {
  std::string bus, product, serial;
  if (!SplitPnpDeviceId(pnpId, &bus, &product, &serial)) return false;
  if (!EqualsNoCase(bus, "usb") || serial.empty()) return false;
  std::string guid = pnpId.substr(pnpId.rfind('#') + 1);
  GUID g;
  if (!qb::sys::ParseGuid(guid, &g) || !(g == GUID_DEVINTERFACE_WPD)) return false;
  // "vid_XXXX&pid_YYYY", any letter case.
  if (product.size() != 17 || product[8] != '&') return false;
  if (!EqualsNoCase(product.substr(0, 4), "vid_") || !EqualsNoCase(product.substr(9, 4), "pid_")) return false;
  uint32_t vid = 0, pid = 0;
  if (!ParseHex(product.substr(4, 4), 4, &vid) || !ParseHex(product.substr(13, 4), 4, &pid)) return false;
  if (vendorId) *vendorId = static_cast<uint16_t>(vid);
  if (productId) *productId = static_cast<uint16_t>(pid);
  if (serialPart) *serialPart = serial;
  return true;
}

}  // namespace qb::portable::mtp
