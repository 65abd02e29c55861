#pragma once
// The 'Device Connected' launch: the udev rule (through the systemd user
// unit) or the startup scan starts the program with
// "/StiDevice:<id> /StiEvent:<guid>".
#include <string>

namespace qb::app {

// The 'Device Connected' event.
constexpr const char* kDeviceConnectedGuid = "{A28BBADE-64B6-11D2-A231-00C04FA31809}";

// True when the process was started for a device event; `deviceName` then
// holds the device id (capacity 260) and `connected` tells whether the
// event is 'Device Connected'.
bool IsStiEvent(int argc, char** argv, std::string* deviceName, bool* connected);

// Role 4: starts a 'Device Connected' launch for every connected device
// whose profile has AutoMap. Returns 0.
int32_t StartupScan();

}  // namespace qb::app
