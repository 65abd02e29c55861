#pragma once
// Names of MTP things in the object model: PnP ids of USB devices, object ids
// of storages and objects, persistent unique ids. Pure text work, no device.
//
//   device object   "DEVICE"
//   storage         "s" + 8 upper-case hex digits of the MTP storage id
//   object          "o" + 8 upper-case hex digits of the MTP object handle
#include <cstdint>
#include <string>

namespace qb::portable::mtp {

// What an object id names.
enum class MtpIdKind { kInvalid, kDevice, kStorage, kObject };

struct MtpObjectRef {
  MtpIdKind kind = MtpIdKind::kInvalid;
  uint32_t value = 0;  // storage id or object handle
};

std::string StorageObjectId(uint32_t storageId);
std::string ContentObjectId(uint32_t handle);
// Reads an id of the forms above (exact form only: prefix, 8 hex digits).
MtpObjectRef ParseObjectId(const std::string& objectId);

// The parent id of an object: its storage for a top-level object (MTP gives
// parent 0, some devices 0xFFFFFFFF), else the parent object.
std::string ParentObjectId(uint32_t parentHandle, uint32_t storageId);
// The MTP parent handle for creating in `parentId`: 0 for a storage.
// False when `parentId` is neither a storage nor an object.
bool ParentHandleOf(const MtpObjectRef& parent, uint32_t* parentHandle);
// The parent handle for sending a new object or folder: MTP names the
// storage root 0xFFFFFFFF there (libmtp would put a new file with parent 0
// into the device's default folder for its type, e.g. the pictures folder).
uint32_t SendParentHandle(uint32_t parentHandle);

// Persistent unique ids, stable for the object's life on this device:
// "<serial>:<storage>:<handle>". Not the device's own persistent unique
// object identifier: that is a 128-bit value, which libmtp 1.1.20 does not
// read (it hands over whatever its memory held).
std::string PersistentIdFallback(const std::string& serial, uint32_t storageId, uint32_t handle);
std::string StoragePersistentId(const std::string& serial, uint32_t storageId);

// The serial part of a PnP id: printable ASCII without '#', '\', '/', '&'
// and blanks (each replaced by '_'), at most 64 characters. An empty serial
// becomes "<bus>&<address>" of the USB port so that the id stays unique.
std::string PnpSerialPart(const std::string& usbSerial, uint32_t busNumber, uint32_t deviceAddress);
// \\?\usb#vid_XXXX&pid_YYYY#<serial>#{6ac27878-a6fa-4155-ba85-f98f491d4f33}
std::string MakeMtpPnpId(uint16_t vendorId, uint16_t productId, const std::string& serialPart);
// The reverse; false for another form (another bus, a bad product part).
bool ParseMtpPnpId(const std::string& pnpId, uint16_t* vendorId, uint16_t* productId, std::string* serialPart);

}  // namespace qb::portable::mtp
