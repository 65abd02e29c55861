#pragma once
// libmtp sessions kept open for a moment after their device was closed, so
// that the next Open of the same device in this process takes the session
// over instead of finding the device on USB and opening it again (about
// 25 ms and 60 requests each). Reading the device table opens every device
// twice and the serving instance opens it once more right after; each
// process then opens the device on USB once.
//
// Only sessions that are as good as fresh are kept: nothing read into
// libmtp's copy of the objects, no event read ever started (see
// MtpSession::Close). A kept session holds the USB claim, which keeps every
// other program out, so kept sessions are released at the latest after
// kKeepFor, at process end, and on ReleaseKeptDevices (before we start an
// instance that will open the device).
#ifdef QUILLBOX_HAVE_LIBMTP
#include <libmtp.h>

#include <chrono>
#include <functional>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/portable/mtp/mtp_probe.h"
#include "platform/portable/mtp/mtp_values.h"

namespace qb::portable::mtp {

inline constexpr std::chrono::milliseconds kKeepFor{1500};
inline constexpr std::chrono::seconds kAwaitOpening{30};

// A reading of the device that a session uses again for a moment (see
// MtpSession::StoragesLocked).
struct MtpReading {
  bool known = false;
  std::chrono::steady_clock::time_point at{};
  uint64_t changes = 0;  // the session's count of changes when it was taken
};

// The storages and power level a session read, and when.
struct MtpReadings {
  std::vector<MtpStorageFacts> storages;
  MtpReading storagesRead;
  bool hasPowerLevel = false;
  uint32_t powerLevel = 0;
  MtpReading powerRead;
};

struct KeptDevice {
  std::string pnpId;
  LIBMTP_mtpdevice_t* handle = nullptr;
  uint32_t busNumber = 0;
  uint32_t deviceAddress = 0;
  uint16_t vendorId = 0;
  uint16_t productId = 0;
  MtpDeviceFacts facts;
  // The closed session's readings; only those still fresh are known.
  MtpReadings readings;
  // Its top level as read before libmtp opened the device (may be empty).
  PtpObjectList topLevel;
};

// Takes over `device.handle`; it is released after kKeepFor unless taken.
void KeepDevice(KeptDevice device);
// The kept session of `pnpId`, when there is one and its device still sits
// where it was opened (a kept session of a device that went is released).
bool TakeKeptDevice(const std::string& pnpId, KeptDevice* device);
// Releases every kept session now (after the openings under way ended).
void ReleaseKeptDevices();
// Runs `open`, which opens the device `pnpId` and keeps its session, on a
// thread of its own, so that the device opens while the process prepares
// for it; TakeKeptDevice waits for it. Nothing is done when a session of
// the device is kept or being opened already.
void OpenAhead(const std::string& pnpId, std::function<void()> open);

}  // namespace qb::portable::mtp
#endif  // QUILLBOX_HAVE_LIBMTP
