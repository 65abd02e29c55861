// The desktop on Qt: what the module gives the room's public calls
// (toolkit.h). Each call comes after the public call checked the display.
#include <QApplication>
#include <QPointer>
#include <QScreen>

#include <cctype>

#include "diag/trace.h"
#include "settings/profiles.h"
#include "ui/main_window.h"
#include "ui/qt_message_box.h"
#include "ui/qt_support.h"
#include "ui/settings_window.h"
#include "ui/toolkit.h"
#include "ui/wait_window.h"

namespace qb::ui {
namespace {

constexpr const char* kTag = "U01@Desktop: ";

static_assert(MainWindow::kClosed == kMappingDlgClosed);

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

class QtDesktop final : public Toolkit {
 public:
  int RunMainWindow(DesktopHost& host) override {
    QApplication* app = EnsureApplication();
    MainWindow window(host, nullptr);
    QObject::connect(&window, &QDialog::finished, app, [app] { app->quit(); });
    window.show();
    app->exec();
    Trace(kTag, "Main window closed");
    return 0;
  }

  int ShowMappingDlg(DesktopHost& host, MappingRequest* request) override {
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

  bool ShowSettingsWindow(DesktopHost&, const std::string& deviceName, const std::string& serial) override {
    return RunSettingsWindow(deviceName, serial);
  }

  Answer MessageBox(const std::string& title, const std::string& text, Icon icon, Buttons buttons,
                    Answer defaultAnswer) override {
    return ShowQtMessageBox(title, text, icon, buttons, defaultAnswer);
  }
  void EndMessageBoxes() override { EndQtMessageBoxes(); }
  bool IsLeftShiftHeld() override { return QtLeftShiftHeld(); }

  void ShowWaitWindow(const std::string& title, const std::string& message, int cancelEvent,
                      bool centre) override {
    EnsureApplication();
    if (!wait_) {
      wait_ = new WaitWindow(nullptr);
      wait_->setAttribute(Qt::WA_DeleteOnClose);
      wait_->SetCancelEvent(cancelEvent);
    }
    wait_->SetTitle(QString::fromStdString(title));
    wait_->SetMessage(QString::fromStdString(message));
    wait_->show();
    if (centre) wait_->move(wait_->screen()->availableGeometry().center() - wait_->rect().center());
    PumpWaitWindow();
  }
  void SetWaitWindowText(const std::string& message) override {
    if (!wait_) return;
    wait_->SetTitle(QString::fromStdString(message));
    PumpWaitWindow();
  }
  void SetWaitWindowIcon(uint32_t deviceType) override {
    if (wait_) wait_->SetDeviceType(deviceType);
  }
  void SetWaitWindowEvent(int cancelEvent) override {
    if (wait_) wait_->SetCancelEvent(cancelEvent);
  }
  void HideWaitWindow() override {
    if (wait_) wait_->close();
    PumpWaitWindow();
  }
  void PumpWaitWindow() override {
    if (QCoreApplication::instance()) QCoreApplication::processEvents();
  }

 private:
  // The wait window of this process; it deletes itself when closed.
  QPointer<WaitWindow> wait_;
};

}  // namespace

Toolkit& QtToolkit() {
  // Never destroyed: the application and its windows outlive static objects.
  static QtDesktop* desktop = new QtDesktop;
  return *desktop;
}

}  // namespace qb::ui
