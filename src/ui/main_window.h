#pragma once
// The main window: drive letters and connected devices in two lists, the
// storage of the selected device, and Map, Disconnect, Refresh, Settings
// and Close. Opened for one device it is the mapping dialog (the chooser):
// Map then hands the chosen letter back instead of starting a child, and
// Ignore may show.
//
// Everything runs on the toolkit's thread; waits for children are rounds of
// a 100 ms timer, so the window stays responsive while it waits.
#include <QDialog>
#include <QString>

#include <memory>
#include <string>
#include <vector>

#include "ui/desktop.h"

class QComboBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QSocketNotifier;
class QTimer;

namespace qb::ui {

class TrayIcon;
class WaitWindow;

class MainWindow : public QDialog {
 public:
  // Results of the window (done()): 1 a letter was chosen, 2 closed,
  // 5 ignore (chooser only).
  static constexpr int kChosen = 1, kClosed = 2, kIgnore = 5;

  // `request` null: the main window of the interactive instance.
  MainWindow(DesktopHost& host, MappingRequest* request);
  ~MainWindow() override;

  bool IsChooser() const { return request_ != nullptr; }
  TrayIcon* Tray() const { return tray_.get(); }
  WaitWindow* CurrentWaitWindow() const { return wait_; }
  // The letter chosen in the chooser, with the ignore mark.
  char ChosenLetter() const { return chosenLetter_; }

  void RefreshAllControls();
  // Icon menu entry 3002: hide when visible, else show in front.
  void ToggleShown();
  void ShowInFront();

 private:
  struct Selection {
    char letter = 0;
    std::string id, serial, pnpId;
  };

  void BuildControls();
  void ApplyTexts();
  void OpenDevicePreselected();
  // `prefer`: a letter to select when it is free (the profile's letter).
  void RefreshDrivesCombo(bool reread, char prefer = 0);
  void RefreshDevicesCombo();
  void RefreshMapButton();
  void RefreshDisconnectButton();
  void RefreshStorage();
  void Remember();
  const DeviceInfo* SelectedDevice() const;
  char SelectedLetter() const;
  std::string DeviceLine(const DeviceInfo& device) const;
  char ProfileLetter(const DeviceInfo& device) const;
  bool IsDeviceMapped(const std::string& deviceId) const;

  void OnDriveChanged();
  void OnDeviceChanged();
  void OnMap();
  void OnDisconnect();
  void OnRefresh();
  void OnSettings();
  void OnIgnore();
  void OnWake();

  // Waiting for a child: the wait window, the timer rounds, the end.
  void StartWait(std::unique_ptr<ChildJob> job, const QString& title, const QString& message,
                 bool cancellable, int maxRounds);
  void OnWaitRound();
  void EndWait(bool cancelled, bool timedOut);
  void ShowError(const QString& text);

  DesktopHost& host_;
  MappingRequest* request_;  // null: main window
  std::string preselectedId_;  // the chooser's device while it is connected
  std::vector<DeviceInfo> devices_;
  Selection selected_;
  int refreshDepth_ = 0;
  char chosenLetter_ = 0;

  QLabel* logo_ = nullptr;
  QLabel* name_ = nullptr;
  QLabel* version_ = nullptr;
  QLabel* driveLabel_ = nullptr;
  QLabel* deviceLabel_ = nullptr;
  QLabel* storageLabel_ = nullptr;
  QComboBox* drives_ = nullptr;
  QComboBox* deviceList_ = nullptr;
  QLineEdit* storage_ = nullptr;
  QPushButton* ignore_ = nullptr;
  QPushButton* map_ = nullptr;
  QPushButton* disconnect_ = nullptr;
  QPushButton* refresh_ = nullptr;
  QPushButton* settings_ = nullptr;
  QPushButton* close_ = nullptr;

  std::unique_ptr<TrayIcon> tray_;
  QSocketNotifier* wake_ = nullptr;

  // The wait for a child (none while idle).
  std::unique_ptr<ChildJob> job_;
  WaitWindow* wait_ = nullptr;
  QTimer* waitTimer_ = nullptr;
  int cancelEvent_ = -1;
  int rounds_ = 0;
  int maxRounds_ = 0;
};

}  // namespace qb::ui
