#pragma once
// The desktop module's one entry point and the interface it returns.
//
// The windows and boxes are built on Qt, and loading Qt costs a start of the
// program about 20 ms of relocations; most starts (a mapping from the command
// line, the serving instance, /u) never show a window. So the Qt code is a
// module of its own (libquillbox-ui.so) that the room's public calls load on
// first need, with a display only (toolkit_module.h). The calls below assume
// that a display can be reached; the public calls keep the behaviour without
// one (desktop.h, message_box.h).
//
// Only the module's entry point is looked up by name. The module calls back
// into the program's own rooms (trace, texts, settings) through the symbols
// the program exports, so both share one trace log and one language.
#include <cstdint>
#include <string>

#include "ui/desktop.h"
#include "ui/message_box.h"

namespace qb::ui {

class Toolkit {
 public:
  virtual int RunMainWindow(DesktopHost& host) = 0;
  virtual int ShowMappingDlg(DesktopHost& host, MappingRequest* request) = 0;
  virtual bool ShowSettingsWindow(DesktopHost& host, const std::string& deviceName,
                                  const std::string& serial) = 0;
  virtual Answer MessageBox(const std::string& title, const std::string& text, Icon icon,
                            Buttons buttons, Answer defaultAnswer) = 0;
  // Closes the box on screen; later boxes answer at once. Any thread.
  virtual void EndMessageBoxes() = 0;
  virtual bool IsLeftShiftHeld() = 0;
  virtual void ShowWaitWindow(const std::string& title, const std::string& message, int cancelEvent,
                              bool centre) = 0;
  virtual void SetWaitWindowText(const std::string& message) = 0;
  virtual void SetWaitWindowIcon(uint32_t deviceType) = 0;
  virtual void SetWaitWindowEvent(int cancelEvent) = 0;
  virtual void HideWaitWindow() = 0;
  virtual void PumpWaitWindow() = 0;

 protected:
  // The module owns its one object for the life of the process.
  ~Toolkit() = default;
};

// The result of the mapping dialog that means "closed" (cancelled).
constexpr int kMappingDlgClosed = 2;

// Changes whenever Toolkit or a type it passes changes: a module of another
// build is refused instead of being called through a different layout.
constexpr uint32_t kToolkitInterface = 0x51420001;

// The toolkit of the Qt code (defined by it; in the module and in the test
// programs that link the Qt code directly).
Toolkit& QtToolkit();

}  // namespace qb::ui

// The module's one exported function: its toolkit, or null when the caller
// was built against another interface.
extern "C" qb::ui::Toolkit* quillbox_ui_toolkit(uint32_t interfaceVersion);
inline constexpr const char* kToolkitEntryPoint = "quillbox_ui_toolkit";
