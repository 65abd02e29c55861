// The room's public calls: the interactive window, the chooser, the
// questions of a mapping and the wait window of a mapping instance.
#include "ui/desktop.h"

#include <QApplication>
#include <QPointer>
#include <QScreen>

#include <cctype>
#include <cstdio>

#include "diag/trace.h"
#include "i18n/i18n.h"
#include "settings/profiles.h"
#include "ui/main_window.h"
#include "ui/message_box.h"
#include "ui/qt_support.h"
#include "ui/wait_window.h"

namespace qb::ui {
namespace {

constexpr const char* kTag = "U01@Desktop: ";

void WriteChoice(DesktopHost& host, const MappingRequest& request, int result) {
  std::vector<DeviceInfo> devices;
  host.ListDevices(&devices);
  for (const DeviceInfo& d : devices) {
    if (d.id != request.deviceId) continue;
    char letter = static_cast<char>(toupper(request.letter));
    DWORD ignore = result == MainWindow::kIgnore ? 1 : 0;
    ProfileRequest write;
    write.sFriendlyName = d.name.c_str();
    write.sSerialNumber = d.serial.c_str();
    write.sPnPID = d.pnpId.c_str();
    write.pDriveLetter[0] = &letter;
    if (ignore) write.pdwIgnore = &ignore;
    WriteProfile(&write, false);
    return;
  }
}

QPointer<WaitWindow>& OwnWaitWindow() {
  static QPointer<WaitWindow> window;
  return window;
}

}  // namespace

int RunMainWindow(DesktopHost& host) {
  if (!HasDisplay()) {
    Trace(kTag, "No display: no main window");
    std::fputs("Quillbox: no display to show the window on (DISPLAY or WAYLAND_DISPLAY)\n", stderr);
    return 0;
  }
  QApplication* app = EnsureApplication();
  MainWindow window(host, nullptr);
  QObject::connect(&window, &QDialog::finished, app, [app] { app->quit(); });
  window.show();
  app->exec();
  Trace(kTag, "Main window closed");
  return 0;
}

int ShowMappingDlg(DesktopHost& host, MappingRequest* request) {
  Trace(kTag, "ShowMappingDlg device=\"%s\" letter=%c", request->deviceId.c_str(),
        request->letter ? request->letter : '?');
  if (!HasDisplay()) {
    if (!request->message.empty()) MessageBox(I18N_TitleError(), request->message, Icon::kWarning, Buttons::kOk, Answer::kOk);
    return MainWindow::kClosed;
  }
  EnsureApplication();
  int result;
  {
    MainWindow window(host, request);
    result = window.exec();
  }
  if (result == MainWindow::kChosen || result == MainWindow::kIgnore) WriteChoice(host, *request, result);
  Trace(kTag, "ShowMappingDlg result=%d letter=%c", result, request->letter ? request->letter : '?');
  return result;
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
  if (!HasDisplay()) return;
  EnsureApplication();
  QPointer<WaitWindow>& window = OwnWaitWindow();
  if (!window) {
    window = new WaitWindow(nullptr);
    window->setAttribute(Qt::WA_DeleteOnClose);
    window->SetCancelEvent(cancelEvent);
  }
  window->SetTitle(QString::fromStdString(title));
  window->SetMessage(QString::fromStdString(message));
  window->show();
  if (centre) window->move(window->screen()->availableGeometry().center() - window->rect().center());
  PumpWaitWindow();
}

void SetWaitWindowText(const std::string& message) {
  if (QPointer<WaitWindow>& window = OwnWaitWindow()) {
    window->SetTitle(QString::fromStdString(message));
    PumpWaitWindow();
  }
}

void SetWaitWindowIcon(uint32_t deviceType) {
  if (QPointer<WaitWindow>& window = OwnWaitWindow()) window->SetDeviceType(deviceType);
}

void SetWaitWindowEvent(int cancelEvent) {
  if (QPointer<WaitWindow>& window = OwnWaitWindow()) window->SetCancelEvent(cancelEvent);
}

void HideWaitWindow() {
  if (QPointer<WaitWindow>& window = OwnWaitWindow()) window->close();
  PumpWaitWindow();
}

void PumpWaitWindow() {
  if (QCoreApplication::instance()) QCoreApplication::processEvents();
}

}  // namespace qb::ui
