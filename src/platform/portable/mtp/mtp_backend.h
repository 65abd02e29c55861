#pragma once
// The libmtp back end as the device manager sees it: which PnP ids are
// ours, the MTP/PTP devices present on USB, and a device object for one of
// them. Always declared; without libmtp the list is empty and Open fails
// with E_ERROR_NOT_FOUND.
#include <memory>
#include <string>
#include <vector>

#include "platform/portable/portable.h"

namespace qb::portable::mtp {

// One device present on USB.
struct MtpDeviceEntry {
  std::string pnpId;         // \\?\usb#vid_XXXX&pid_YYYY#<serial>#{6ac27878-...}
  std::string friendlyName;  // the device's own name, else the USB product
  std::string manufacturer;
  std::string description;   // the model
  // The device table's facts as the last session opened on this USB
  // connection (bus and address) found them; a device never opened since
  // it was plugged in, or that showed no storage then, has none.
  bool tableFactsKnown = false;
  bool hasStorage = false;
  std::string protocol;
  std::string serialNumber;
};

// True when the back end was built with libmtp.
bool MtpBackendAvailable();
// True for a PnP id of the libmtp back end (bus "usb", vid/pid, WPD class).
bool IsMtpPnpId(const std::string& pnpId);
// The MTP/PTP devices on USB now (S_OK also when there are none).
HRESULT ListMtpDevices(std::vector<MtpDeviceEntry>* devices);
// A device object not yet opened; Open takes an MTP PnP id.
std::unique_ptr<IPortableDevice> CreateMtpPortableDevice();
// Releases the libmtp sessions kept after a close (mtp_keeper.h) now.
void ReleaseIdleMtpDevices();
// With `namesOnly` a device whose names are not known yet is asked for them
// in a few requests (mtp_probe.h) instead of being opened with libmtp: for
// a process that serves no device itself.
void AskNamesOnly(bool namesOnly);
// Starts opening an MTP device on a thread of its own; the next Open of it
// in this process takes that session over (mtp_keeper.h).
void OpenMtpDeviceAhead(const std::string& pnpId);

}  // namespace qb::portable::mtp
