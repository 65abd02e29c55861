// WPD properties of the MTP device object, storages and content objects.
#include "platform/portable/mtp/mtp_values.h"

#include <cstdio>

#include "platform/portable/mtp/mtp_formats.h"
#include "platform/portable/mtp/mtp_ids.h"
#include "platform/portable/mtp/mtp_time.h"

namespace qb::portable::mtp {
namespace {

void SetDate(PortableDeviceValues* v, const PROPERTYKEY& key, int64_t unixSeconds) {
  double date = 0;
  if (UnixToVariantDate(unixSeconds, &date)) v->SetValue(key, PROPVARIANT::Date(date));
}

bool CanDelete(const MtpObjectFacts& o, uint16_t storageAccess) {
  if (storageAccess == WPD_STORAGE_ACCESS_CAPABILITY_READ_ONLY_WITHOUT_OBJECT_DELETION) return false;
  return !o.hasProtection || o.protectionStatus == 0;
}

void CopyIfPresent(const PortableDeviceValues& from, const PROPERTYKEY& key, PortableDeviceValues* to) {
  if (const PROPVARIANT* p = from.Find(key)) to->SetValue(key, *p);
}

}  // namespace

std::string ProtocolText(bool hasMtpExtension) { return hasMtpExtension ? "MTP: 1.00" : "PTP: 1.00"; }

std::string DeviceName(const std::string& friendlyName, const std::string& model, const std::string& usbProduct) {
  return !friendlyName.empty() ? friendlyName : !model.empty() ? model : usbProduct;
}

uint32_t DeviceTypeFor(bool hasMtpExtension, bool hasAndroidExtension) {
  if (hasAndroidExtension) return WPD_DEVICE_TYPE_PHONE;
  return hasMtpExtension ? WPD_DEVICE_TYPE_MEDIA_PLAYER : WPD_DEVICE_TYPE_CAMERA;
}

bool PowerPercent(uint8_t maximum, uint8_t current, uint32_t* percent) {
  if (maximum == 0) return false;
  uint32_t p = (static_cast<uint32_t>(current) * 100u + maximum / 2u) / maximum;
  *percent = p > 100 ? 100 : p;
  return true;
}

std::string StorageName(const MtpStorageFacts& s) {
  if (!s.description.empty()) return s.description;
  if (!s.volumeIdentifier.empty()) return s.volumeIdentifier;
  char buf[32];
  std::snprintf(buf, sizeof buf, "Storage %08X", s.id);
  return buf;
}

void BuildDeviceValues(const MtpDeviceFacts& d, PortableDeviceValues* v) {
  v->Clear();
  v->SetStringValue(WPD_OBJECT_ID, WPD_DEVICE_OBJECT_ID);
  v->SetStringValue(WPD_OBJECT_PARENT_ID, "");
  v->SetStringValue(WPD_OBJECT_NAME, WPD_DEVICE_OBJECT_ID);
  v->SetStringValue(WPD_OBJECT_PERSISTENT_UNIQUE_ID, WPD_DEVICE_OBJECT_ID);
  v->SetGuidValue(WPD_OBJECT_FORMAT, WPD_OBJECT_FORMAT_PROPERTIES_ONLY);
  v->SetGuidValue(WPD_OBJECT_CONTENT_TYPE, WPD_CONTENT_TYPE_FUNCTIONAL_OBJECT);
  v->SetGuidValue(WPD_FUNCTIONAL_OBJECT_CATEGORY, WPD_FUNCTIONAL_CATEGORY_DEVICE);
  v->SetStringValue(WPD_OBJECT_CONTAINER_FUNCTIONAL_OBJECT_ID, WPD_DEVICE_OBJECT_ID);
  if (!d.firmwareVersion.empty()) v->SetStringValue(WPD_DEVICE_FIRMWARE_VERSION, d.firmwareVersion);
  if (d.hasPowerLevel) {
    v->SetUnsignedIntegerValue(WPD_DEVICE_POWER_LEVEL, d.powerLevel);
    v->SetUnsignedIntegerValue(WPD_DEVICE_POWER_SOURCE, WPD_POWER_SOURCE_BATTERY);
  }
  v->SetStringValue(WPD_DEVICE_PROTOCOL, d.protocol);
  if (!d.manufacturer.empty()) v->SetStringValue(WPD_DEVICE_MANUFACTURER, d.manufacturer);
  if (!d.model.empty()) v->SetStringValue(WPD_DEVICE_MODEL, d.model);
  if (!d.serialNumber.empty()) v->SetStringValue(WPD_DEVICE_SERIAL_NUMBER, d.serialNumber);
  v->SetBoolValue(WPD_DEVICE_SUPPORTS_NON_CONSUMABLE, false);
  v->SetStringValue(WPD_DEVICE_FRIENDLY_NAME, d.friendlyName);
  v->SetBoolValue(WPD_DEVICE_SUPPORTED_FORMATS_ARE_ORDERED, false);
  v->SetUnsignedIntegerValue(WPD_DEVICE_TYPE, d.deviceType);
  v->SetUnsignedIntegerValue(WPD_DEVICE_TRANSPORT, 1);  // WPD_DEVICE_TRANSPORT_USB
}

void BuildStorageValues(const MtpStorageFacts& s, const std::string& deviceSerial, PortableDeviceValues* v) {
  v->Clear();
  std::string id = StorageObjectId(s.id);
  v->SetStringValue(WPD_OBJECT_ID, id);
  v->SetStringValue(WPD_OBJECT_PARENT_ID, WPD_DEVICE_OBJECT_ID);
  v->SetStringValue(WPD_OBJECT_NAME, StorageName(s));
  v->SetStringValue(WPD_OBJECT_PERSISTENT_UNIQUE_ID, StoragePersistentId(deviceSerial, s.id));
  v->SetGuidValue(WPD_OBJECT_FORMAT, WPD_OBJECT_FORMAT_PROPERTIES_ONLY);
  v->SetGuidValue(WPD_OBJECT_CONTENT_TYPE, WPD_CONTENT_TYPE_FUNCTIONAL_OBJECT);
  v->SetGuidValue(WPD_FUNCTIONAL_OBJECT_CATEGORY, WPD_FUNCTIONAL_CATEGORY_STORAGE);
  v->SetStringValue(WPD_OBJECT_CONTAINER_FUNCTIONAL_OBJECT_ID, id);
  v->SetUnsignedIntegerValue(WPD_STORAGE_TYPE, WpdStorageType(s.storageType));
  v->SetStringValue(WPD_STORAGE_FILE_SYSTEM_TYPE, FileSystemTypeText(s.filesystemType));
  v->SetUnsignedLargeIntegerValue(WPD_STORAGE_CAPACITY, s.maxCapacity);
  v->SetUnsignedLargeIntegerValue(WPD_STORAGE_FREE_SPACE_IN_BYTES, s.freeSpaceInBytes);
  if (s.freeSpaceInObjects != 0xFFFFFFFFull && s.freeSpaceInObjects != 0xFFFFFFFFFFFFFFFFull)
    v->SetUnsignedLargeIntegerValue(WPD_STORAGE_FREE_SPACE_IN_OBJECTS, s.freeSpaceInObjects);
  v->SetStringValue(WPD_STORAGE_DESCRIPTION, StorageName(s));
  if (!s.volumeIdentifier.empty()) v->SetStringValue(WPD_STORAGE_SERIAL_NUMBER, s.volumeIdentifier);
  v->SetUnsignedIntegerValue(WPD_STORAGE_ACCESS_CAPABILITY, WpdAccessCapability(s.accessCapability));
}

void BuildObjectValues(const MtpObjectFacts& o, uint16_t storageAccess, PortableDeviceValues* v) {
  v->Clear();
  bool folder = o.formatCode == kFormatAssociation;
  v->SetStringValue(WPD_OBJECT_ID, ContentObjectId(o.handle));
  v->SetStringValue(WPD_OBJECT_PARENT_ID, ParentObjectId(o.parentHandle, o.storageId));
  v->SetStringValue(WPD_OBJECT_NAME, o.fileName);
  if (!o.persistentId.empty()) v->SetStringValue(WPD_OBJECT_PERSISTENT_UNIQUE_ID, o.persistentId);
  v->SetGuidValue(WPD_OBJECT_FORMAT, FormatGuidOf(o.formatCode));
  v->SetGuidValue(WPD_OBJECT_CONTENT_TYPE, ContentTypeOf(o.formatCode));
  v->SetBoolValue(WPD_OBJECT_ISHIDDEN, o.hasHidden && o.hidden);
  v->SetBoolValue(WPD_OBJECT_ISSYSTEM, false);
  if (!folder) v->SetUnsignedLargeIntegerValue(WPD_OBJECT_SIZE, o.size);
  v->SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, o.fileName);
  v->SetBoolValue(WPD_OBJECT_NON_CONSUMABLE, false);
  if (o.hasCreated) SetDate(v, WPD_OBJECT_DATE_CREATED, o.created);
  if (o.hasModified) SetDate(v, WPD_OBJECT_DATE_MODIFIED, o.modified);
  v->SetBoolValue(WPD_OBJECT_CAN_DELETE, CanDelete(o, storageAccess));
  v->SetStringValue(WPD_OBJECT_CONTAINER_FUNCTIONAL_OBJECT_ID, StorageObjectId(o.storageId));
}

bool IsWritableObjectKey(const PROPERTYKEY& key) {
  return key == WPD_OBJECT_ORIGINAL_FILE_NAME || key == WPD_OBJECT_DATE_MODIFIED || key == WPD_OBJECT_DATE_CREATED ||
         key == WPD_OBJECT_CAN_DELETE || key == WPD_OBJECT_ISHIDDEN;
}

HRESULT SelectValues(const PortableDeviceValues& all, const KeyCollection* keys, PortableDeviceValues* out) {
  if (!keys) {
    *out = all;
    return S_OK;
  }
  out->Clear();
  bool missing = false;
  for (const auto& key : *keys) {
    if (const PROPVARIANT* p = all.Find(key)) out->SetValue(key, *p);
    else missing = true;
  }
  return missing ? S_FALSE : S_OK;
}

PortableDeviceValues ObjectEventParameters(const GUID& eventId, const std::string& pnpId,
                                           const PortableDeviceValues& objectValues) {
  PortableDeviceValues v;
  v.SetGuidValue(WPD_EVENT_PARAMETER_EVENT_ID, eventId);
  v.SetStringValue(WPD_EVENT_PARAMETER_PNP_DEVICE_ID, pnpId);
  for (const PROPERTYKEY& key : {WPD_OBJECT_ID, WPD_OBJECT_PERSISTENT_UNIQUE_ID, WPD_OBJECT_NAME,
                                 WPD_OBJECT_ORIGINAL_FILE_NAME, WPD_OBJECT_PARENT_ID,
                                 WPD_OBJECT_CONTAINER_FUNCTIONAL_OBJECT_ID, WPD_OBJECT_CONTENT_TYPE})
    CopyIfPresent(objectValues, key, &v);
  return v;
}

PortableDeviceValues DeviceRemovedParameters(const std::string& pnpId) {
  PortableDeviceValues v;
  v.SetGuidValue(WPD_EVENT_PARAMETER_EVENT_ID, WPD_EVENT_DEVICE_REMOVED);
  v.SetStringValue(WPD_EVENT_PARAMETER_PNP_DEVICE_ID, pnpId);
  return v;
}

}  // namespace qb::portable::mtp
