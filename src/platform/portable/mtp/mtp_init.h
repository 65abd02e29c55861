#pragma once
// libmtp's one-time start, shared by the device list and the sessions.
#ifdef QUILLBOX_HAVE_LIBMTP
namespace qb::portable::mtp {
void EnsureLibmtp();
}  // namespace qb::portable::mtp
#endif  // QUILLBOX_HAVE_LIBMTP
