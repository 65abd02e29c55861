#include "app/mapping_dialog.h"

#include <cctype>

#include "app/desktop_host.h"
#include "app/mapping_state.h"
#include "diag/trace.h"
#include "ui/desktop.h"

namespace qb::app {

int ShowMappingDlg(MappingState* state, const std::string& message) {
  Trace("M67@ShowMappingDlg: ", "ENTER %s, %c, \"%s\", chained=%d, shift=%d, auto=%d", state->deviceId.c_str(),
        state->letter, message.c_str(), state->inv && state->inv->chained ? 1 : 0, state->shiftHeld ? 1 : 0,
        state->automatic ? 1 : 0);
  // The window's chooser (without a display: the message on standard error
  // and "cancelled").
  ui::MappingRequest request;
  request.deviceId = state->deviceId;
  request.letter = state->letter;
  request.message = message;
  request.format = state->format;
  request.storageName = state->storageName;
  request.chained = state->inv && state->inv->chained;
  request.shiftHeld = state->shiftHeld;
  request.automatic = state->automatic;
  request.multiCardSupport = state->profile.multiCardSupport;
  request.policy = state->profile.policy;
  request.structureFlags = state->structureFlags;
  int result = ui::ShowMappingDlg(InstanceDesktopHost(), &request);
  if (result == kDialogChosen) {
    state->letter = static_cast<char>(toupper(static_cast<unsigned char>(request.letter)));
    state->format = request.format;
  }
  Trace("M67@ShowMappingDlg: ", "RETURN: RC=0x%08X", static_cast<uint32_t>(result));
  return result;
}

}  // namespace qb::app
