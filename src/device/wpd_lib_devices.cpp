// The device table (WpdLib_GetDevices) and the opening of one device.
#include "common/strings.h"
#include "device/wpd_lib_internal.h"

namespace {

constexpr const char* kTagGetDevices = "<WPDLIB>WA41@WpdLib_GetDevices: ";
constexpr const char* kTagLegacy = "<WPDLIB>WA41@GetWPDDeviceIDs: ";
constexpr const char* kTagFriendly = "<WPDLIB>WA66@GetFriendlyName: ";
constexpr const char* kTagChoose = "<WPDLIB>WE6@ChooseDevice: ";
constexpr const char* kTagClient = "<WPDLIB>WU8@GetClientInformation: ";
constexpr size_t kNameChars = 260;

bool HasStorageEntries(const PtrList<std::string>& names) {
  for (const auto& n : names)
    if (n && *n == "WPD_STORAGE_INDEX") return true;
  return false;
}

// A device the table leaves out: no storage, or a mass-storage device that
// the system already shows as a drive. A device that cannot be opened is
// not judged here.
bool IsLeftOut(WpdLibContext* c, const std::string& pnpId) {
  std::shared_ptr<qbp::IPortableDevice> device;
  if (FAILED(ChooseDevice(c, pnpId.c_str(), &device)) || !device) return false;
  PtrList<std::string> names, values;
  GetDevicePropsOf(c, device, &names, &values, 4);
  bool leftOut = !HasStorageEntries(names);
  if (!leftOut) {
    PtrList<std::string> pn, pv;
    GetDevicePropsOf(c, device, &pn, &pv, 5);
    leftOut = pn.Get(0) && *pn.Get(0) == "WPD_DEVICE_PROTOCOL" && pv.Get(0) &&
              pv.Get(0)->rfind("MSC:", 0) == 0;
  }
  device->Close();
  return leftOut;
}

std::string SerialNumberOf(WpdLibContext* c, const std::string& pnpId) {
  std::shared_ptr<qbp::IPortableDevice> device;
  if (FAILED(ChooseDevice(c, pnpId.c_str(), &device)) || !device) return "";
  PtrList<std::string> names, values;
  GetDevicePropsOf(c, device, &names, &values, 1);
  device->Close();
  if (names.Count() == 1 && *names.Get(0) == "WPD_DEVICE_SERIAL_NUMBER")
    return std::string(qb::CutToUtf16(*values.Get(0), kNameChars - 1));
  return "";
}

// One row of the table; the result of its last step. What the system
// learned of the device since it was plugged in spares opening it.
HRESULT AddDeviceRow(WpdLibContext* c, const std::string& pnpId, PtrList<std::string>* ids,
                     PtrList<std::string>* names, PtrList<std::string>* serials,
                     PtrList<std::string>* pnpIds) {
  qbp::DeviceTableFacts known;
  const bool fromFacts = c->pPlatform->pDeviceManager->GetDeviceTableFacts(pnpId, &known) == S_OK;
  if (fromFacts) {
    Trace(kTagGetDevices, "%s: from what the system knows of it", pnpId.c_str());
    if (!known.hasStorage || known.protocol.rfind("MSC:", 0) == 0) return S_OK;
  } else if (IsLeftOut(c, pnpId)) {
    return S_OK;
  }
  std::string friendly;
  HRESULT hr = GetFriendlyName(c, pnpId.c_str(), &friendly, kNameChars);
  if (FAILED(hr)) return hr;
  ids->Emplace(pnpId);
  if (pnpIds) pnpIds->Emplace(pnpId);
  if (names) {
    if (!friendly.empty() && friendly.back() == '\\') friendly.pop_back();
    names->Emplace(friendly);
  }
  if (serials)
    serials->Emplace(fromFacts ? std::string(qb::CutToUtf16(known.serialNumber, kNameChars - 1)) : SerialNumberOf(c, pnpId));
  return hr;
}

}  // namespace

HRESULT WpdLib_GetDevices(WpdLibContext* c, PtrList<std::string>* pDeviceIDs,
                          PtrList<std::string>* pNames, PtrList<std::string>* pSerialNumbers,
                          PtrList<std::string>* pPnPIDs, uint32_t bNoLegacy) {
  TraceEnter(kTagGetDevices);
  if (!WpdLib_IsValid(c) || !c->pPlatform || !c->pPlatform->pDeviceManager)
    return TraceReturn(kTagGetDevices, E_INVALIDARG, 1);
  // A new manager, so that the list shows the devices present now.
  c->pPlatform->pDeviceManager = qbp::CreatePortableDeviceManager();
  if (!c->pPlatform->pDeviceManager) return TraceReturn(kTagGetDevices, E_FAIL, 2);
  if (!pDeviceIDs) return TraceReturn(kTagGetDevices, S_OK, 3);
  std::vector<std::string> pnpIds;
  HRESULT hr = WpdLib_RetryWhileBusy(c, kTagGetDevices, [&] {
    return c->pPlatform->pDeviceManager->GetDevices(&pnpIds);
  });
  if (FAILED(hr)) {
    WpdLib_Message(c, "Failed to get the device list from the system", hr);
    return TraceReturn(kTagGetDevices, hr, 4);
  }
  for (size_t i = 0; i < pnpIds.size(); ++i) {
    Trace(kTagGetDevices, "ID[%d]=%s", static_cast<int>(i), pnpIds[i].c_str());
    WpdLib_NoteActivity(c);
    hr = AddDeviceRow(c, pnpIds[i], pDeviceIDs, pNames, pSerialNumbers, pPnPIDs);
  }
  if (!bNoLegacy && !pnpIds.empty()) hr = GetWPDDeviceIDs(c, pDeviceIDs);
  return TraceReturn(kTagGetDevices, hr, 5);
}

// There is no still-image device manager here: every device is known by its
// Plug and Play id, and the rewrite finds nothing to replace.
HRESULT GetWPDDeviceIDs(WpdLibContext* /*c*/, PtrList<std::string>* /*pDeviceIDs*/) {
  TraceEnter(kTagLegacy);
  return TraceReturn(kTagLegacy, S_OK);
}

HRESULT GetClientInformation(WpdLibContext* /*c*/, qbp::PortableDeviceValues* pValues) {
  TraceEnter(kTagClient);
  pValues->SetStringValue(WPD_CLIENT_NAME, "Quillbox");
  pValues->SetUnsignedIntegerValue(WPD_CLIENT_MAJOR_VERSION, 5);
  pValues->SetUnsignedIntegerValue(WPD_CLIENT_MINOR_VERSION, 0);
  pValues->SetUnsignedIntegerValue(WPD_CLIENT_REVISION, 200);
  pValues->SetUnsignedIntegerValue(WPD_CLIENT_SECURITY_QUALITY_OF_SERVICE, SECURITY_IMPERSONATION);
  return TraceReturn(kTagClient, S_OK);
}

HRESULT ChooseDevice(WpdLibContext* c, const char* sPnPID,
                     std::shared_ptr<qbp::IPortableDevice>* ppDevice) {
  TraceEnter(kTagChoose);
  if (!ppDevice || *ppDevice || !sPnPID) {
    WpdLib_Message(c, "Failed to open the device: no place for it", E_FAIL);
    return TraceReturn(kTagChoose, E_FAIL, 1);
  }
  qbp::PortableDeviceValues client;
  GetClientInformation(c, &client);
  std::shared_ptr<qbp::IPortableDevice> device = qbp::CreatePortableDevice();
  if (!device) {
    WpdLib_Message(c, "Failed to CoCreateInstance CLSID_PortableDevice", E_FAIL);
    return TraceReturn(kTagChoose, E_FAIL, 2);
  }
  HRESULT hr = WpdLib_RetryWhileBusy(c, kTagChoose, [&] { return device->Open(sPnPID, client); });
  if (hr == E_ACCESSDENIED) {
    WpdLib_Message(c,
                   "Failed to Open the device for Read Write access, will open it for Read-only "
                   "access instead",
                   hr);
    client.SetUnsignedIntegerValue(WPD_CLIENT_DESIRED_ACCESS, GENERIC_READ);
    hr = WpdLib_RetryWhileBusy(c, kTagChoose, [&] { return device->Open(sPnPID, client); });
  }
  if (FAILED(hr)) {
    WpdLib_Message(c, "Failed to Open the device", hr);
    return TraceReturn(kTagChoose, hr, 3);
  }
  *ppDevice = std::move(device);
  return TraceReturn(kTagChoose, hr, 4);
}

HRESULT GetFriendlyName(WpdLibContext* c, const char* sPnPID, std::string* psName,
                        size_t cchCapacity) {
  TraceEnter(kTagFriendly);
  if (!sPnPID) return TraceReturn(kTagFriendly, E_INVALIDARG, 1);
  std::string name;
  const HRESULT hr = WpdLib_RetryWhileBusy(c, kTagFriendly, [&] {
    return c->pPlatform->pDeviceManager->GetDeviceFriendlyName(sPnPID, &name);
  });
  if (FAILED(hr)) {
    WpdLib_Message(c, "Failed to get device friendly name", hr);
    return TraceReturn(kTagFriendly, hr, 2);
  }
  if (!name.empty()) *psName = std::string(qb::CutToUtf16(name, cchCapacity - 1));
  return TraceReturn(kTagFriendly, S_OK, 3);
}

int GetWpdDevicePnPID(std::string* psPnPID, size_t cchCapacity, const char* sDeviceID) {
  if (!psPnPID || !sDeviceID) return 0;
  const std::string id(qb::CutToUtf16(sDeviceID, cchCapacity - 1));
  if (id.find("\\\\?\\") != std::string::npos) {
    *psPnPID = id;
    return 1;
  }
  std::string found;
  if (ReadWpdDevicePnPIDFromRegistry(id.c_str(), &found)) {
    *psPnPID = std::string(qb::CutToUtf16(found, cchCapacity - 1));
    return 1;
  }
  *psPnPID = id;
  return 0;
}
