// The room's public calls: the interactive window, the chooser, the
// questions of a mapping and the wait window of a mapping instance. Each
// checks for a display and then hands over to the desktop module, which is
// loaded on the first call that shows something (toolkit_module.h).
#include "ui/desktop.h"

#include <cstdio>

#include "diag/trace.h"
#include "i18n/i18n.h"
#include "ui/message_box.h"
#include "ui/toolkit_module.h"

namespace qb::ui {
namespace {

constexpr const char* kTag = "U01@Desktop: ";

// The toolkit when a window can be shown, else null.
Toolkit* WindowToolkit() { return HasDisplay() ? LoadToolkit() : nullptr; }

}  // namespace

int RunMainWindow(DesktopHost& host) {
  if (!HasDisplay()) {
    Trace(kTag, "No display: no main window");
    std::fputs("Quillbox: no display to show the window on (DISPLAY or WAYLAND_DISPLAY)\n", stderr);
    return 0;
  }
  Toolkit* toolkit = LoadToolkit();
  return toolkit ? toolkit->RunMainWindow(host) : 0;
}

int ShowMappingDlg(DesktopHost& host, MappingRequest* request) {
  Trace(kTag, "ShowMappingDlg device=\"%s\" letter=%c", request->deviceId.c_str(),
        request->letter ? request->letter : '?');
  if (Toolkit* toolkit = WindowToolkit()) return toolkit->ShowMappingDlg(host, request);
  if (!request->message.empty()) MessageBox(I18N_TitleError(), request->message, Icon::kWarning, Buttons::kOk, Answer::kOk);
  return kMappingDlgClosed;
}

bool AskBatteryLow(const std::string& deviceName, int percent) {
  std::string text = I18N_Format(-28, {deviceName, static_cast<int32_t>(percent)});
  return MessageBox("Quillbox", text, Icon::kQuestion, Buttons::kYesNo, Answer::kYes) == Answer::kYes;
}

bool AskMapEmptyDevice() {
  return MessageBox(I18N_TitleQuestion(), I18N_Format(-34), Icon::kQuestion, Buttons::kYesNo, Answer::kYes) ==
         Answer::kYes;
}

void ShowWaitWindow(const std::string& title, const std::string& message, int cancelEvent, bool centre) {
  Trace("U30@ShowWaitWindow: ", "%s: %s", title.c_str(), message.c_str());
  if (Toolkit* toolkit = WindowToolkit()) toolkit->ShowWaitWindow(title, message, cancelEvent, centre);
}

// The calls below act on a wait window that exists: they never load the
// module themselves.
void SetWaitWindowText(const std::string& message) {
  if (Toolkit* toolkit = LoadedToolkit()) toolkit->SetWaitWindowText(message);
}

void SetWaitWindowIcon(uint32_t deviceType) {
  if (Toolkit* toolkit = LoadedToolkit()) toolkit->SetWaitWindowIcon(deviceType);
}

void SetWaitWindowEvent(int cancelEvent) {
  if (Toolkit* toolkit = LoadedToolkit()) toolkit->SetWaitWindowEvent(cancelEvent);
}

void HideWaitWindow() {
  if (Toolkit* toolkit = LoadedToolkit()) toolkit->HideWaitWindow();
}

void PumpWaitWindow() {
  if (Toolkit* toolkit = LoadedToolkit()) toolkit->PumpWaitWindow();
}

bool ShowSettingsWindow(DesktopHost& host, const std::string& deviceName, const std::string& serial) {
  Toolkit* toolkit = WindowToolkit();
  return toolkit && toolkit->ShowSettingsWindow(host, deviceName, serial);
}

}  // namespace qb::ui
