#pragma once
// libmtp's one-time start, shared by the device list and the sessions.
#ifdef QUILLBOX_HAVE_LIBMTP
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "platform/portable/mtp/mtp_values.h"

#include <libmtp.h>

namespace qb::portable::mtp {
void EnsureLibmtp();
// LIBMTP_Detect_Raw_Devices, one call at a time: libmtp starts its USB
// library on the first call without a lock, and a device may be opened
// ahead on a thread of its own while the device list is read.
LIBMTP_error_number_t DetectMtpDevices(LIBMTP_raw_device_t** devices, int* count);
// Keeps what an opened device told of itself, for the device list: its
// names, and the table's facts for as long as it stays at `bus`/`address`.
void RememberDevice(const std::string& pnpId, const MtpDeviceFacts& facts, uint32_t bus, uint32_t address,
                    size_t storageCount);
// Whether the device was last found to speak MTP (its names are known).
bool RememberedAsMtp(const std::string& pnpId);
// Which of our processes holds a device open (a file beside its names):
// another process that cannot open the device then knows that waiting will
// not help. Written when a session opens, removed when it closes; a holder
// that died counts as none.
void RecordDeviceHolder(const std::string& pnpId);
// Whether the device's objects of a format support a property (keyed by
// property and format code), as the device answered in earlier sessions:
// kept beside its names while its firmware version stays the same, so that
// a session need not ask again. A file that does not read as written is
// ignored (and written anew with the next answer).
using PropertySupport = std::map<std::pair<int, uint16_t>, bool>;
PropertySupport RecallPropertySupport(const std::string& pnpId, const std::string& firmware);
void RememberPropertySupport(const std::string& pnpId, const std::string& firmware, const PropertySupport& support);
void ForgetDeviceHolder(const std::string& pnpId);
bool HeldByAnotherProcess(const std::string& pnpId);
}  // namespace qb::portable::mtp
#endif  // QUILLBOX_HAVE_LIBMTP
