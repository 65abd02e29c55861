#include "app/mapping_device.h"

#include <cstdlib>

#include "app/neighbours.h"
#include "common/ptr_list.h"
#include "device/wpd_helper_local.h"

namespace qb::app {
namespace {

std::vector<std::string> ToVector(const PtrList<std::string>& list) {
  std::vector<std::string> out;
  for (uint32_t i = 0; i < list.Count(); ++i) out.push_back(list.Get(i) ? *list.Get(i) : std::string());
  return out;
}

HRESULT ReadProps(bool deviceOnly, const PtrList<std::string>* ignored, std::vector<std::string>* names,
                  std::vector<std::string>* values) {
  CWPDHelperBase* device = DeviceAccess();
  if (!device) return E_FAIL;
  PtrList<std::string> n, v;
  HRESULT hr = device->GetDeviceProps(&n, &v, deviceOnly ? 1 : 0, deviceOnly ? 0 : 1, 0, ignored);
  *names = ToVector(n);
  *values = ToVector(v);
  return hr;
}

}  // namespace

CWPDHelperBase* DeviceAccess() { return nb::DeviceAccessObject(); }

HRESULT OpenDevice(const std::string& deviceId, WpdEventCallbackFn callback) {
  CWPDHelperBase* device = DeviceAccess();
  return device ? device->RegisterEventHandler(deviceId.c_str(), callback) : E_FAIL;
}

void CloseDevice() {
  if (CWPDHelperBase* device = DeviceAccess()) device->DeRegisterEventHandler();
}

std::vector<std::string> SplitProfileList(const std::string& text) {
  std::vector<std::string> out;
  std::string piece;
  for (char c : text + " ") {
    if (c == ' ' || c == ';' || c == '\t' || c == '\n' || c == '\r') {
      if (!piece.empty()) out.push_back(piece);
      piece.clear();
    } else {
      piece += c;
    }
  }
  return out;
}

HRESULT ReadStorages(const std::string& ignoredList, std::vector<StorageInfo>* storages) {
  PtrList<std::string> ignored;
  for (const std::string& s : SplitProfileList(ignoredList)) ignored.Emplace(s);
  std::vector<std::string> names, values;
  HRESULT hr = ReadProps(false, &ignored, &names, &values);
  *storages = SUCCEEDED(hr) ? StoragesOf(names, values) : std::vector<StorageInfo>();
  return hr;
}

HRESULT ReadDeviceProps(DeviceProps* props) {
  std::vector<std::string> names, values;
  HRESULT hr = ReadProps(true, nullptr, &names, &values);
  for (size_t i = 0; i < names.size() && i < values.size(); ++i) {
    if (names[i] == "WPD_DEVICE_POWER_LEVEL") props->powerLevel = std::atoi(values[i].c_str());
    if (names[i] == "WPD_DEVICE_FRIENDLY_NAME") props->friendlyName = values[i];
    if (names[i] == "WPD_DEVICE_TYPE") props->deviceType = static_cast<uint32_t>(std::strtoul(values[i].c_str(), nullptr, 10));
  }
  return hr;
}

HRESULT ListDevice(CDirectory* tree, int storageIndex, uint32_t structure, uint32_t shallow) {
  CWPDHelperBase* device = DeviceAccess();
  if (!device) return E_FAIL;
  return device->GetDirlist(tree, storageIndex, nullptr, nullptr, structure, shallow, nullptr);
}

}  // namespace qb::app
