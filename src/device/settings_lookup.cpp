// The two outside lookups of the device layer: the download-delay setting
// and the registry's Plug and Play id of a legacy device id.
#include "device/helper_worker.h"
#include "device/wpd_lib_internal.h"
#include "platform/registry/registry.h"
#include "settings/settings.h"

uint32_t ReadGetFileDelayMs() { return Registry_Get_GetFileDelayMs(); }

bool ReadWpdDevicePnPIDFromRegistry(const char* sDeviceID, std::string* psPnPID) {
  const char* tag = "<WPDLIB>WA41@GetWpdDevicePnPID: ";
  qb::reg::Key key;
  const std::string path =
      std::string("System\\CurrentControlSet\\Control\\Class\\") + sDeviceID + "\\DeviceData";
  const DWORD err = key.Open(HKEY_LOCAL_MACHINE, path, KEY_READ);
  if (err != ERROR_SUCCESS) {
    Trace(tag, "Error opening registry key, error =%d", static_cast<int>(err));
    return false;
  }
  std::string value;
  if (key.GetString("WpdDevicePnPID", &value) != ERROR_SUCCESS || value.empty()) return false;
  *psPnPID = value;
  return true;
}
