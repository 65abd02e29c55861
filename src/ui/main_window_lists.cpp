// Filling the two lists and the enable rules of the buttons.
#include <QComboBox>
#include <QLineEdit>
#include <QPushButton>
#include <QSignalBlocker>

#include <cctype>

#include "diag/trace.h"
#include "settings/profiles.h"
#include "settings/settings.h"
#include "ui/main_window.h"
#include "ui/qt_support.h"

namespace qb::ui {
namespace {

constexpr const char* kTag = "U21@MainWindowLists: ";

std::string ProfileAlias(const DeviceInfo& device) {
  std::string alias;
  ProfileRequest request;
  request.sFriendlyName = device.name.c_str();
  request.sSerialNumber = device.serial.c_str();
  request.sAlias = &alias;
  request.nAliasCapacity = QB_ALIAS_SUMMARY_CHARS + 1;
  ReadProfile(&request, false);
  return alias;
}

QString DriveText(char letter) { return QString("%1: ").arg(QChar(letter)); }

}  // namespace

void MainWindow::RefreshAllControls() {
  if (refreshDepth_ > 0) {
    Trace(kTag, "indent=%d", refreshDepth_);
    return;
  }
  ++refreshDepth_;
  RefreshDrivesCombo(true);
  RefreshDevicesCombo();
  RefreshMapButton();
  RefreshDisconnectButton();
  RefreshStorage();
  Remember();
  --refreshDepth_;
}

void MainWindow::OpenDevicePreselected() {
  preselectedId_ = request_->deviceId;
  bool connected = false;
  for (const DeviceInfo& d : devices_) connected = connected || d.id == preselectedId_;
  if (!connected) {
    // The device went away: the window becomes a plain list to choose from.
    Trace(kTag, "Device \"%s\" not connected; no preselection", preselectedId_.c_str());
    preselectedId_.clear();
    deviceList_->setEnabled(true);
    drives_->setEnabled(true);
  } else if (Registry_IsAgentPresent()) {
    ignore_->show();
  }
  if (isalpha(static_cast<unsigned char>(request_->letter)))
    selected_.letter = static_cast<char>(toupper(request_->letter));
  RefreshAllControls();
}

void MainWindow::RefreshDrivesCombo(bool reread, char prefer) {
  if (reread) {
    std::vector<DeviceInfo> list;
    bool ok = host_.ListDevices(&list);
    if (!ok) {
      Trace(kTag, "Error getting devices, retrying");
      ok = host_.ListDevices(&list);
      if (!ok) Trace(kTag, "Error getting devices again");
    }
    if (ok) devices_ = list;
    if (ok && devices_.empty()) Trace(kTag, "New list empty");
  }
  QSignalBlocker block(drives_);
  drives_->clear();
  char preselectedAt = 0, firstFree = 0;
  for (char c = 'Z'; c >= 'C'; --c) {
    MappedDriveInfo drive;
    if (host_.MappedDrive(c, &drive)) {
      std::string line = drive.name.empty()
                             ? drive.deviceId
                             : FormatDeviceComboLine(drive.alias, drive.serial, drive.pnpId, drive.name,
                                                     drive.storageName, "Drive");
      drives_->addItem(ProgramIcon(), DriveText(c) + QString::fromStdString(line), QChar(c));
      if (!preselectedId_.empty() && drive.deviceId == preselectedId_ && !preselectedAt) preselectedAt = c;
    } else if (host_.IsLetterFree(c)) {
      drives_->addItem(DriveText(c), QChar(c));
      if (!firstFree) firstFree = c;
    }
  }
  char want = preselectedAt;
  for (char candidate : {prefer, selected_.letter}) {
    if (want || !candidate) continue;
    int at = drives_->findData(QChar(candidate));
    if (at >= 0 && drives_->itemText(at).size() < 4) want = candidate;
  }
  if (!want) want = firstFree;
  int at = want ? drives_->findData(QChar(want)) : 0;
  drives_->setCurrentIndex(at >= 0 ? at : 0);
  drives_->setEnabled(!preselectedAt && !host_.InitFailed());
}

void MainWindow::RefreshDevicesCombo() {
  QString previous = deviceList_->currentText();
  QSignalBlocker block(deviceList_);
  deviceList_->clear();
  int matches = 0, matchAt = -1;
  for (size_t i = 0; i < devices_.size(); ++i) {
    deviceList_->addItem(ProgramIcon(), QString::fromStdString(DeviceLine(devices_[i])), static_cast<int>(i));
    if (!preselectedId_.empty() && devices_[i].id == preselectedId_) {
      ++matches;
      if (matchAt < 0) matchAt = static_cast<int>(i);
    }
  }
  if (matches > 1) Trace(kTag, "More than one device with ID \"%s\"", preselectedId_.c_str());
  if (matches == 1) {
    Trace(kTag, "Chooser for \"%s\": %s", preselectedId_.c_str(), DeviceLine(devices_[matchAt]).c_str());
    deviceList_->setCurrentIndex(matchAt);
    deviceList_->setEnabled(false);
    return;
  }
  int at = deviceList_->findText(previous);
  deviceList_->setCurrentIndex(at >= 0 ? at : 0);
  deviceList_->setEnabled(!host_.InitFailed());
}

void MainWindow::RefreshMapButton() {
  const DeviceInfo* device = SelectedDevice();
  bool enable = drives_->isEnabled() && drives_->count() > 0 && drives_->currentText().size() < 4 &&
                deviceList_->count() > 0 && device && !IsDeviceMapped(device->id) && !host_.InitFailed();
  map_->setEnabled(enable);
  ignore_->setEnabled(device != nullptr && !host_.InitFailed());
}

void MainWindow::RefreshDisconnectButton() {
  // A mapped drive's entry carries its device after "X: ".
  disconnect_->setEnabled(drives_->currentText().size() > 3 && !host_.InitFailed());
}

void MainWindow::RefreshStorage() {
  QStringList names;
  if (request_ && !request_->storageName.empty()) {
    names << QString::fromStdString(request_->storageName);
  } else if (const DeviceInfo* device = SelectedDevice()) {
    // A mapped device is not opened again (its drive's instance holds it):
    // the drive table names the storage it serves.
    bool mapped = false;
    for (char c = 'Z'; c >= 'C' && !mapped; --c) {
      MappedDriveInfo drive;
      if (host_.MappedDrive(c, &drive) && drive.deviceId == device->id) {
        mapped = true;
        names << QString::fromStdString(drive.storageName);
      }
    }
    if (!mapped)
      for (const std::string& n : host_.StorageNames(device->id)) names << QString::fromStdString(n);
  }
  storage_->setText(names.join("; "));
  storage_->setCursorPosition(0);
}

void MainWindow::Remember() {
  selected_.letter = SelectedLetter();
  const DeviceInfo* device = SelectedDevice();
  selected_.id = device ? device->id : std::string();
  selected_.serial = device ? device->serial : std::string();
  selected_.pnpId = device ? device->pnpId : std::string();
}

const DeviceInfo* MainWindow::SelectedDevice() const {
  QVariant data = deviceList_->currentData();
  if (!data.isValid()) return nullptr;
  size_t i = static_cast<size_t>(data.toInt());
  return i < devices_.size() ? &devices_[i] : nullptr;
}

char MainWindow::SelectedLetter() const {
  QVariant data = drives_->currentData();
  return data.isValid() ? static_cast<char>(data.toChar().toLatin1()) : 0;
}

std::string MainWindow::DeviceLine(const DeviceInfo& device) const {
  return FormatDeviceComboLine(ProfileAlias(device), device.serial, device.pnpId, device.name, "", "Device");
}

char MainWindow::ProfileLetter(const DeviceInfo& device) const {
  char letter = 0;
  ProfileRequest request;
  request.sFriendlyName = device.name.c_str();
  request.sSerialNumber = device.serial.c_str();
  request.pDriveLetter[0] = &letter;
  ReadProfile(&request, false);
  return isalpha(static_cast<unsigned char>(letter)) ? static_cast<char>(toupper(letter)) : 0;
}

bool MainWindow::IsDeviceMapped(const std::string& deviceId) const {
  for (char c = 'Z'; c >= 'C'; --c) {
    MappedDriveInfo drive;
    if (host_.MappedDrive(c, &drive) && drive.deviceId == deviceId) return true;
  }
  return false;
}

void MainWindow::OnDriveChanged() {
  if (SelectedLetter() == selected_.letter) return;
  RefreshMapButton();
  RefreshDisconnectButton();
  Remember();
}

void MainWindow::OnDeviceChanged() {
  const DeviceInfo* device = SelectedDevice();
  if (!device) return;
  if (device->id != selected_.id || device->serial != selected_.serial || device->pnpId != selected_.pnpId) {
    RefreshDrivesCombo(false, ProfileLetter(*device));
    RefreshMapButton();
    RefreshDisconnectButton();
    RefreshStorage();
  }
  Remember();
}

}  // namespace qb::ui
