#pragma once
// libmtp's file types against MTP format codes (libmtp hides the codes).
#ifdef QUILLBOX_HAVE_LIBMTP
#include <libmtp.h>

#include <cstdint>

namespace qb::portable::mtp {

uint16_t FormatCodeOfFiletype(LIBMTP_filetype_t type);
LIBMTP_filetype_t FiletypeOfFormatCode(uint16_t code);

}  // namespace qb::portable::mtp
#endif  // QUILLBOX_HAVE_LIBMTP
