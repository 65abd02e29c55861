#pragma once
// libmtp's one-time start, shared by the device list and the sessions.
#ifdef QUILLBOX_HAVE_LIBMTP
#include <string>

namespace qb::portable::mtp {
void EnsureLibmtp();
// Keeps the names an opened device gave, for the device list.
void RememberDeviceNames(const std::string& pnpId, const std::string& friendlyName, const std::string& manufacturer,
                         const std::string& model);
}  // namespace qb::portable::mtp
#endif  // QUILLBOX_HAVE_LIBMTP
