#include "app/mapping_messages.h"

#include "app/neighbours.h"
#include "i18n/i18n.h"
#include "ui/message_box.h"

namespace qb::app {

void ShowErrorText(int textId) { ShowWarning(I18N_Format(textId)); }

void ShowWarning(const std::string& text) {
  ui::MessageBox(nb::TitleError(), text, ui::Icon::kWarning, ui::Buttons::kOk, ui::Answer::kOk);
}

}  // namespace qb::app
