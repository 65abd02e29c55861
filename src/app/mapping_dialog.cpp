#include "app/mapping_dialog.h"

#include "app/mapping_state.h"
#include "app/neighbours.h"
#include "diag/trace.h"
#include "ui/message_box.h"

namespace qb::app {

int ShowMappingDlg(MappingState* state, const std::string& message) {
  Trace("M67@ShowMappingDlg: ", "ENTER %s, %c, \"%s\", chained=%d, shift=%d, auto=%d", state->deviceId.c_str(),
        state->letter, message.c_str(), state->inv && state->inv->chained ? 1 : 0, state->shiftHeld ? 1 : 0,
        state->automatic ? 1 : 0);
  if (!message.empty())
    ui::MessageBox(nb::TitleError(), message, ui::Icon::kWarning, ui::Buttons::kOk, ui::Answer::kOk);
  Trace("M67@ShowMappingDlg: ", "RETURN: RC=0x%08X", static_cast<uint32_t>(kDialogCancelled));
  return kDialogCancelled;
}

}  // namespace qb::app
