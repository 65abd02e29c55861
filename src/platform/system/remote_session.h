#pragma once
// Whether the program runs in a remote session: here, an SSH session.

namespace qb::sys {

// True when SSH_CONNECTION (or SSH_CLIENT / SSH_TTY) is set in the
// environment of this process.
bool IsRemoteSession();

}  // namespace qb::sys
