#pragma once
// Loading the desktop module (libquillbox-ui.so, toolkit.h) on first need.
//
// The module lies in lib/quillbox beside the program's bin folder (the same
// in the build tree and installed); QUILLBOX_UI_MODULE names another file.
// A module that cannot be loaded (missing, not ours, of another build) is
// said once on standard error and in the trace log; the desktop calls then
// behave as without a display.
#include <filesystem>

#include "ui/toolkit.h"

namespace qb::ui {

// The toolkit, loading the module on the first call; null when it cannot be
// loaded. Callers have checked that a display can be reached. Any thread.
Toolkit* LoadToolkit();

// The toolkit if it is loaded already; never loads. Any thread.
Toolkit* LoadedToolkit();

// Where the module is looked for.
std::filesystem::path ToolkitModulePath();

// For programs that link the Qt code themselves (the window tests): their
// own toolkit is used and no module is loaded. Call before the first window.
void UseLinkedToolkit(Toolkit& toolkit);

}  // namespace qb::ui
