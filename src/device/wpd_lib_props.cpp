// The property lists of a device and its storages (WpdLib_GetDeviceProps):
// a walk from the device object to depth 1 that reads into name/value lists.
#include "common/strings.h"
#include "device/wpd_lib_read.h"

namespace {

constexpr const char* kTagProps = "<WPDLIB>WA44@WpdLib_GetDeviceProps: ";
constexpr const char* kTagOf = "<WPDLIB>WA441@GetDeviceProperties: ";

struct NamedKey {
  PROPERTYKEY key;
  const char* name;
};

#define QB_KEY(k) NamedKey{k, #k}
const NamedKey kSummary[] = {QB_KEY(WPD_DEVICE_POWER_LEVEL), QB_KEY(WPD_DEVICE_FRIENDLY_NAME),
                             QB_KEY(WPD_DEVICE_TYPE)};
const NamedKey kAllDevice[] = {
    QB_KEY(WPD_DEVICE_SYNC_PARTNER),        QB_KEY(WPD_DEVICE_FIRMWARE_VERSION),
    QB_KEY(WPD_DEVICE_POWER_LEVEL),         QB_KEY(WPD_DEVICE_POWER_SOURCE),
    QB_KEY(WPD_DEVICE_PROTOCOL),            QB_KEY(WPD_DEVICE_MANUFACTURER),
    QB_KEY(WPD_DEVICE_MODEL),               QB_KEY(WPD_DEVICE_SERIAL_NUMBER),
    QB_KEY(WPD_DEVICE_SUPPORTS_NON_CONSUMABLE), QB_KEY(WPD_DEVICE_DATETIME),
    QB_KEY(WPD_DEVICE_FRIENDLY_NAME),       QB_KEY(WPD_DEVICE_SUPPORTED_DRM_SCHEMES),
    QB_KEY(WPD_DEVICE_SUPPORTED_FORMATS_ARE_ORDERED), QB_KEY(WPD_DEVICE_TYPE),
    QB_KEY(WPD_DEVICE_NETWORK_IDENTIFIER),  QB_KEY(WPD_DEVICE_FUNCTIONAL_UNIQUE_ID),
    QB_KEY(WPD_DEVICE_MODEL_UNIQUE_ID),     QB_KEY(WPD_DEVICE_TRANSPORT),
    QB_KEY(WPD_DEVICE_USE_DEVICE_STAGE)};
const NamedKey kSerial[] = {QB_KEY(WPD_DEVICE_SERIAL_NUMBER)};
const NamedKey kProtocol[] = {QB_KEY(WPD_DEVICE_PROTOCOL)};
const NamedKey kStorage[] = {QB_KEY(WPD_STORAGE_TYPE), QB_KEY(WPD_STORAGE_FILE_SYSTEM_TYPE),
                             QB_KEY(WPD_STORAGE_CAPACITY), QB_KEY(WPD_STORAGE_FREE_SPACE_IN_BYTES)};
#undef QB_KEY

template <size_t N>
void AddAll(WpdWalk& w, const qbp::PortableDeviceValues& v, const NamedKey (&keys)[N]) {
  for (const NamedKey& k : keys)
    WpdLib_ReadAny(v, k.key, k.name, w.pDevicePropNames, w.pDevicePropValues);
}

}  // namespace

void WpdLib_AddDevicePropEntries(WpdWalk& w, const qbp::PortableDeviceValues& v,
                                 const WpdObjectInfo& o) {
  using Kind = DeviceListingRecord::Kind;
  if (!w.pDevicePropNames || !w.pDevicePropValues) return;
  if (o.kind == Kind::Device && !o.bFunctionalOther) {
    switch (w.rPropType) {
      case 1: AddAll(w, v, kSerial); break;
      case 2: AddAll(w, v, kSummary); break;
      case 3: AddAll(w, v, kAllDevice); break;
      case 5: AddAll(w, v, kProtocol); break;
      default: break;
    }
    return;
  }
  if (o.kind != Kind::Storage || w.rPropType != 4) return;
  WpdLib_AppendProp(w.pDevicePropNames, w.pDevicePropValues, "WPD_STORAGE_INDEX",
                    qb::Format("%d", w.nStorageCounter));
  WpdLib_AppendProp(w.pDevicePropNames, w.pDevicePropValues, "WPD_OBJECT_ID", o.sObjectID);
  WpdLib_AppendProp(w.pDevicePropNames, w.pDevicePropValues, "WPD_OBJECT_NAME", o.sName);
  AddAll(w, v, kStorage);
}

HRESULT GetDevicePropsOf(WpdLibContext* c, const std::shared_ptr<qbp::IPortableDevice>& device,
                         PtrList<std::string>* names, PtrList<std::string>* values, int mode,
                         int32_t nStorageIndex) {
  TraceEnter(kTagOf);
  WpdWalk w;
  w.c = c;
  if (!device) return TraceReturn(kTagOf, E_INVALIDARG, 1);
  HRESULT hr = device->Content(&w.pContent);
  if (FAILED(hr)) {
    WpdLib_Message(c, "Failed to get IPortableDeviceContent from IPortableDevice", hr);
    return TraceReturn(kTagOf, hr, 2);
  }
  w.nIndentMax = 1;
  w.pDevicePropNames = names;
  w.pDevicePropValues = values;
  w.rPropType = mode;
  w.nStorageIndex = nStorageIndex;  // carried along; the lists are never restricted by it
  hr = RecursiveEnumerate(w, WPD_DEVICE_OBJECT_ID, 0, nullptr, false, false);
  return TraceReturn(kTagOf, hr, 3);
}

HRESULT WpdLib_GetDeviceProps(WpdLibContext* c, PtrList<std::string>* pNames,
                              PtrList<std::string>* pValues, uint32_t bDeviceOnly,
                              uint32_t bWithStorages, int32_t nStorageIndex) {
  TraceEnter(kTagProps);
  if (!WpdLib_IsValid(c)) return TraceReturn(kTagProps, E_INVALIDARG, 1);
  const int mode = bDeviceOnly ? 2 : (bWithStorages ? 4 : 3);
  std::shared_ptr<qbp::IPortableDevice> device = WpdLib_OpenedDevice(c);
  if (!device) return TraceReturn(kTagProps, E_INVALIDARG, 2);
  return TraceReturn(kTagProps, GetDevicePropsOf(c, device, pNames, pValues, mode, nStorageIndex), 3);
}
