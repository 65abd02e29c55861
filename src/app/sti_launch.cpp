#include "app/sti_launch.h"

#include <cerrno>
#include <chrono>
#include <thread>

#include "app/launch.h"
#include "app/neighbours.h"
#include "common/strings.h"
#include "diag/trace.h"
#include "platform/portable/portable.h"
#include "platform/system/process_spawn.h"

namespace qb::app {
namespace {

bool TakeValue(const std::string& arg, const char* prefix, std::string* value) {
  std::string p = prefix;
  if (arg.size() < p.size() + 1 || (arg[0] != '/' && arg[0] != '-')) return false;
  if (!EqualsNoCaseAZ(std::string_view(arg).substr(1, p.size()), p)) return false;
  *value = arg.substr(p.size() + 1);
  return true;
}

}  // namespace

bool IsStiEvent(int argc, char** argv, std::string* deviceName, bool* connected) {
  std::string device, event;
  bool haveDevice = false, haveEvent = false;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i] ? argv[i] : "";
    haveDevice = TakeValue(arg, "StiDevice:", &device) || haveDevice;
    haveEvent = TakeValue(arg, "StiEvent:", &event) || haveEvent;
  }
  if (!haveDevice || !haveEvent) return false;
  if (connected) *connected = EqualsNoCaseAZ(event, kDeviceConnectedGuid);
  if (deviceName) {
    deviceName->clear();
    _TcsCpy(deviceName, 260, device.c_str());
  }
  if (connected && *connected) Trace("M50@IsStiEvent: ", "Device Connected Event: %s", device.c_str());
  return true;
}

int32_t StartupScan() {
  Trace("M51@StartupScan: ", "ENTER ");
  nb::DeviceList devices;
  nb::GetDevices(&devices);
  for (size_t i = 0; i < devices.ids.size(); ++i) {
    const std::string name = i < devices.names.size() ? devices.names[i] : "";
    const std::string serial = i < devices.serials.size() ? devices.serials[i] : "";
    nb::ProfileInfo profile = nb::ReadProfile(name, serial);
    if (!profile.autoMap) continue;
    std::string line = OwnExecutablePath(true) +
                       qb::Format(" /StiDevice:%s /StiEvent:%s /startup", devices.ids[i].c_str(), kDeviceConnectedGuid);
    Trace("M51@StartupScan: ", "InvokeSTI: '%s'", line.c_str());
    std::string path = OwnExecutablePath(false);
    qb::portable::ReleaseIdleDevices();  // the started instance opens the device
    sys::ChildProcess child;
    if (path.empty() ||
        !sys::SpawnProcess({path, "/StiDevice:" + devices.ids[i], std::string("/StiEvent:") + kDeviceConnectedGuid,
                            "/startup"},
                           {}, &child, true)) {
      Trace("M51@StartupScan: ", "InvokeSTI failed, error=%d", path.empty() ? ENOENT : errno);
      continue;
    }
    child.Release();
    // Give each started instance a head start on the device.
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
  }
  Trace("M51@StartupScan: ", "RETURN: RC=0x%08X (%s)", 0u, CodeToName(0));
  return 0;
}

}  // namespace qb::app
