// The one symbol of the desktop module that the program looks up by name.
#include "ui/toolkit.h"

extern "C" __attribute__((visibility("default"))) qb::ui::Toolkit* quillbox_ui_toolkit(uint32_t interfaceVersion) {
  return interfaceVersion == qb::ui::kToolkitInterface ? &qb::ui::QtToolkit() : nullptr;
}
