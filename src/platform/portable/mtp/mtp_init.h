#pragma once
// libmtp's one-time start, shared by the device list and the sessions.
#ifdef QUILLBOX_HAVE_LIBMTP
#include <string>

namespace qb::portable::mtp {
void EnsureLibmtp();
// Keeps the names an opened device gave, for the device list.
void RememberDeviceNames(const std::string& pnpId, const std::string& friendlyName, const std::string& manufacturer,
                         const std::string& model);
// Which of our processes holds a device open (a file beside its names):
// another process that cannot open the device then knows that waiting will
// not help. Written when a session opens, removed when it closes; a holder
// that died counts as none.
void RecordDeviceHolder(const std::string& pnpId);
void ForgetDeviceHolder(const std::string& pnpId);
bool HeldByAnotherProcess(const std::string& pnpId);
}  // namespace qb::portable::mtp
#endif  // QUILLBOX_HAVE_LIBMTP
