#include "platform/system/remote_session.h"

#include <cstdlib>
#include <initializer_list>

namespace qb::sys {

bool IsRemoteSession() {
  for (const char* name : {"SSH_CONNECTION", "SSH_CLIENT", "SSH_TTY"}) {
    const char* value = std::getenv(name);
    if (value && *value) return true;
  }
  return false;
}

}  // namespace qb::sys
