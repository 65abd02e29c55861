#include "app/mapping.h"

#include "diag/trace.h"

namespace qb::app {

int32_t MapDevice(Invocation* inv) {
  Trace("M60@MapDevice: ", "ENTER device=\"%s\", pnp=\"%s\", letter=%c, card=%d, flags=0x%08X, sti=%d",
        inv->deviceId.c_str(), inv->pnpId.c_str(), inv->letter, inv->storageCardIndex, inv->structureFlags,
        inv->sti ? 1 : 0);
  // The mapping (letter choice, listing, mount) is not part of this build:
  // the instance stops where it would begin.
  Trace("M60@MapDevice: ", "Mapping not available in this build; stopping before the mapping begins");
  Trace("M60@MapDevice: ", "RETURN: RC=0x%08X (%s)", 0u, CodeToName(0));
  return 0;
}

}  // namespace qb::app
